#include "effectcache/EffectIndex.h"

#include <gtest/gtest.h>

#include "effectcache/EffectTable.h"
#include "support/AllocationFaults.h"
#include "support/MemoryDataStream.h"

namespace Tovrel {
namespace {

using Testing::MemoryDataStream;

EffectRecord RecordFor(const std::string& name, std::uint32_t size) {
  return EffectRecord{7, static_cast<std::uint32_t>(name.size()), size, 1, CacheTimeStamp{2024, 5, 1, 9, 3, 7, 45},
                      size / 3, 0};
}

TEST(EffectIndexTest, AnEntryReadsBackAsWritten) {
  const std::string name = "shaders/glass.fx";
  auto* memory = new MemoryDataStream(EffectIndex::EntrySize(name));
  RefPtr<IDataStream> stream(memory);
  ASSERT_TRUE(EffectIndex::WriteEntry(stream, name, RecordFor(name, 3000)));
  RefPtr<IDataStream> in(new MemoryDataStream(memory->Bytes()));
  std::string read;
  EffectRecord record{};
  ASSERT_TRUE(EffectIndex::ReadEntry(in, read, record));
  EXPECT_EQ(read, name);
  EXPECT_EQ(record.uncompressedSize, 3000u);
  EXPECT_EQ(record.compressedSize, 1000u);
  EXPECT_EQ(record.lastUsed, (CacheTimeStamp{2024, 5, 1, 9, 3, 7, 45}));
}

TEST(EffectIndexTest, OnlyANameOfTheRecordsLengthIsWritable) {
  EXPECT_TRUE(EffectIndex::IsWritable("ab", RecordFor("ab", 1)));
  EXPECT_FALSE(EffectIndex::IsWritable("", RecordFor("", 1)));
  EXPECT_FALSE(EffectIndex::IsWritable("abc", RecordFor("ab", 1)));
  EXPECT_EQ(EffectIndex::EntrySize("abc"), 44u + 8u + 3u);
}

TEST(EffectIndexTest, RecordsOutOfRangeAndShortStreamsAreRefused) {
  for (const std::uint32_t size : {0u, 1048577u}) {
    auto* memory = new MemoryDataStream(EffectIndex::EntrySize("ab"));
    RefPtr<IDataStream> out(memory);
    ASSERT_TRUE(EffectIndex::WriteEntry(out, "ab", RecordFor("ab", size)));
    RefPtr<IDataStream> in(new MemoryDataStream(memory->Bytes()));
    std::string name;
    EffectRecord record{};
    EXPECT_FALSE(EffectIndex::ReadEntry(in, name, record)) << size;
  }
  auto* memory = new MemoryDataStream(EffectIndex::EntrySize("ab"));
  RefPtr<IDataStream> out(memory);
  ASSERT_TRUE(EffectIndex::WriteEntry(out, "ab", RecordFor("ab", 10)));
  std::vector<std::uint8_t> cut = memory->Bytes();
  cut.resize(cut.size() - 1);
  RefPtr<IDataStream> in(new MemoryDataStream(cut));
  std::string name;
  EffectRecord record{};
  EXPECT_FALSE(EffectIndex::ReadEntry(in, name, record));
}

TEST(EffectIndexTest, AnIndexOfNoEntriesReadsAsEmptyAndACountPastItsBytesFails) {
  // An empty cache keeps its index as one byte.
  RefPtr<IDataStream> one(new MemoryDataStream(std::vector<std::uint8_t>(1, 0)));
  EffectTable table;
  table.AddLoaded("stale", RecordFor("stale", 10));
  EXPECT_TRUE(EffectIndex::ReadAll(one, 0, 1, table));
  EXPECT_EQ(table.Size(), 0u);
  RefPtr<IDataStream> again(new MemoryDataStream(std::vector<std::uint8_t>(1, 0)));
  EXPECT_FALSE(EffectIndex::ReadAll(again, 1, 1, table));
}

TEST(EffectIndexTest, ACountInTheHeaderReservesNothingTheBytesDoNotHold) {
  // Two entries' bytes under a count of 8,388,608: the read fails having
  // reserved room for no more entries than the bytes could hold.
  std::vector<std::uint8_t> bytes;
  for (const char* name : {"one", "two"}) {
    RefPtr<IDataStream> entry(new MemoryDataStream(EffectRecord::kSize + 8 + 3));
    ASSERT_TRUE(EffectIndex::WriteEntry(entry, name, RecordFor(name, 10)));
    entry->Seek(0, 0);
    std::vector<std::uint8_t> part(EffectRecord::kSize + 8 + 3);
    ASSERT_EQ(entry->Read(part.data(), part.size()), part.size());
    bytes.insert(bytes.end(), part.begin(), part.end());
  }
  RefPtr<IDataStream> index(new MemoryDataStream(bytes));
  EffectTable table;
  Testing::AllocationFaultScope scope;
  Testing::AllocationFaults::StartCounting();
  EXPECT_FALSE(EffectIndex::ReadAll(index, 8388608, bytes.size(), table));
  EXPECT_LT(Testing::AllocationFaults::Largest(), 4096u);
}

TEST(EffectIndexTest, AStreamLongerThanTheFileIsRefusedUnread) {
  RefPtr<IDataStream> index(new MemoryDataStream(std::vector<std::uint8_t>(1000, 0)));
  EffectTable table;
  EXPECT_FALSE(EffectIndex::ReadAll(index, 10, 999, table));
  EXPECT_EQ(index->GetPosition(), 0u);
}

}  // namespace
}  // namespace Tovrel
