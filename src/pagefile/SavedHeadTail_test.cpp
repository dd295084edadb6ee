// The last bytes of a head stream as the file holds them, read by following
// the chain's links: the chain's own last bytes, however long the chain and
// in whatever order its pages lie, across a page boundary, after the chain
// was written anew behind the reader's cache; nothing from a broken chain.
#include "pagefile/SavedHeadTail.h"

#include <gtest/gtest.h>

#include <vector>

#include "pagefile/PageGeometry.h"
#include "support/HeadChainFile.h"
#include "support/TempDir.h"

namespace Tovrel {
namespace {

using Testing::HeadChainFile;
using Testing::TempDir;

class SavedHeadTailTest : public ::testing::Test {
 protected:
  void Write(const std::vector<std::uint64_t>& others, const std::vector<std::uint8_t>& payload) {
    FilePageCache cache(path_.c_str(), 4);
    HeadChainFile::Write(cache, HeadChainFile::Layout(payload.size(), others), payload);
  }
  static std::vector<std::uint8_t> Tail(const std::vector<std::uint8_t>& payload, std::size_t n) {
    return std::vector<std::uint8_t>(payload.end() - static_cast<std::ptrdiff_t>(n), payload.end());
  }
  std::vector<std::uint8_t> ReadTail(FilePageCache& cache, std::uint64_t n) {
    std::vector<std::uint8_t> out(n);
    if (!SavedHeadTail::Read(cache, out.data(), n)) out.clear();
    return out;
  }

  TempDir dir_;
  std::wstring path_ = dir_.File("head.bin");
};

TEST_F(SavedHeadTailTest, AOnePageChainGivesItsLastBytes) {
  const auto payload = HeadChainFile::Payload(500, 1);
  Write({}, payload);
  FilePageCache cache(path_.c_str(), 4);
  EXPECT_EQ(ReadTail(cache, 36), Tail(payload, 36));
  EXPECT_EQ(ReadTail(cache, 500), payload);
  EXPECT_TRUE(ReadTail(cache, 501).empty());
}

TEST_F(SavedHeadTailTest, AScatteredChainIsFollowedToItsEndAndATailAcrossTwoPagesIsJoined) {
  // Five pages out of order; the last page holds from 1 to 60 bytes, so the
  // 36 bytes asked for lie in it alone or in it and the page before.
  for (std::uint64_t last = 1; last <= 60; last += 7) {
    const auto payload = HeadChainFile::Payload(kFirstPagePayload + 3 * kPagePayload + last, 2);
    Write({40, 13, 27, 11}, payload);
    FilePageCache cache(path_.c_str(), 4);
    ASSERT_EQ(ReadTail(cache, 36), Tail(payload, 36)) << last;
  }
}

TEST_F(SavedHeadTailTest, AChainWrittenAnewBehindTheCacheIsReadAsTheFileHoldsIt) {
  const auto before = HeadChainFile::Payload(20000, 3);
  Write({11, 12}, before);
  FilePageCache reader(path_.c_str(), 4);
  ASSERT_EQ(ReadTail(reader, 36), Tail(before, 36));
  const auto after = HeadChainFile::Payload(30000, 4);
  Write({14, 11, 12}, after);
  EXPECT_EQ(ReadTail(reader, 36), Tail(after, 36));
}

TEST_F(SavedHeadTailTest, ABrokenChainReadsAsNothing) {
  const auto payload = HeadChainFile::Payload(kFirstPagePayload + 2 * kPagePayload + 100, 5);
  Write({11, 12, 13}, payload);
  {
    FilePageCache cache(path_.c_str(), 4);
    ASSERT_EQ(ReadTail(cache, 36), Tail(payload, 36));
  }
  HeadChainFile::Patch(path_, 12, 0, 11);  // a link back into the chain
  {
    FilePageCache cache(path_.c_str(), 4);
    EXPECT_TRUE(ReadTail(cache, 36).empty());
  }
  HeadChainFile::Patch(path_, 12, 0, 13);
  HeadChainFile::Patch(path_, 10, 8, payload.size() + 1);  // a size the pages do not hold
  {
    FilePageCache cache(path_.c_str(), 4);
    EXPECT_TRUE(ReadTail(cache, 36).empty());
  }
  HeadChainFile::Patch(path_, 10, 8, payload.size());
  HeadChainFile::Patch(path_, 10, 0, 0);  // no pages
  {
    FilePageCache cache(path_.c_str(), 4);
    EXPECT_TRUE(ReadTail(cache, 36).empty());
  }
  HeadChainFile::Patch(path_, 10, 0, 4);
  HeadChainFile::Patch(path_, 13, 0, 0x100000);  // the last page links past the last page id
  FilePageCache cache(path_.c_str(), 4);
  EXPECT_TRUE(ReadTail(cache, 36).empty());
}

}  // namespace
}  // namespace Tovrel
