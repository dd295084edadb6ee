// Searches side by side: threads of one process, and processes, search one
// cache while others cache, save, remove, compact and are killed. Every
// search returns bytes that some save stored under its name (or a miss for
// a name that may have been removed), never another name's bytes or a mix
// of two versions; effects saved before the searches began, and never
// removed, are always found. A search of a file no one changed takes
// neither named mutex and makes no file call but the reads of its bytes.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "platform/FileFaults.h"
#include "platform/MutexWaits.h"
#include "support/ChildLauncher.h"
#include "support/ChildProcess.h"
#include "support/CrashRunner.h"
#include "support/EffectTesting.h"
#include "support/InstalledFileSystem.h"
#include "support/TempDir.h"
#include "tovrel/EffectCacheSystem.h"

namespace Tovrel {
namespace {

namespace fs = std::filesystem;
using Testing::ChildLauncher;
using Testing::EffectTesting;

constexpr int kStable = 16;  // saved before any search, never removed
constexpr int kPool = 32;    // cached again and again, removed and compacted

std::string StableName(int i) { return "stable/" + std::to_string(i); }
std::string PoolName(int i) { return "pool/" + std::to_string(i); }
// Cached by a writer's round just before its save, never removed: once the
// save returned, every search must find it.
std::string MarkName(std::uint32_t version) { return "mark/" + std::to_string(version); }
WStr Wide(const std::string& name) { return WStr(ChildLauncher::Wide(name).c_str()); }

std::uint32_t Fnv(const std::string& text) {
  std::uint32_t h = 2166136261u;
  for (unsigned char c : text) h = (h ^ c) * 16777619u;
  return h;
}

// An effect's bytes name it and its version; the rest follows from both,
// so that any process can tell a version of the right name from anything
// else.
std::vector<unsigned char> Versioned(const std::string& name, std::uint32_t version) {
  std::vector<unsigned char> bytes(name.begin(), name.end());
  bytes.push_back(0);
  for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<unsigned char>(version >> (8 * i)));
  const std::uint32_t seed = Fnv(name) * 31u + version;
  const std::vector<unsigned char> body = EffectTesting::Bytes(seed, 2000 + seed % 30000, seed % 3 != 0);
  bytes.insert(bytes.end(), body.begin(), body.end());
  return bytes;
}

// "" when `data` is a version of `name`'s effect, else what it is instead.
std::string Judge(const std::string& name, const Tab<unsigned char>& data) {
  const std::vector<unsigned char> bytes = EffectTesting::ToVector(data);
  std::size_t end = 0;
  while (end < bytes.size() && bytes[end] != 0) ++end;
  const std::string named(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(end));
  if (named != name) return "a search of " + name + " returned the bytes of " + named;
  if (bytes.size() < end + 5) return "a search of " + name + " returned " + std::to_string(bytes.size()) + " bytes";
  std::uint32_t version = 0;
  for (int i = 0; i < 4; ++i) version |= static_cast<std::uint32_t>(bytes[end + 1 + static_cast<std::size_t>(i)]) << (8 * i);
  if (bytes != Versioned(name, version)) return "a search of " + name + " returned a mix of versions";
  return "";
}

bool Cache(EffectCacheImpl& cache, const std::string& name, std::uint32_t version, bool permanent = false) {
  const std::vector<unsigned char> bytes = Versioned(name, version);
  return cache.CacheCompiledEffect(Wide(name), bytes.data(), bytes.size(), permanent);
}

void CacheStable(const std::wstring& folder) {
  EffectCacheImpl cache(WStr(folder.c_str()), 2);
  for (int i = 0; i < kStable; ++i) ASSERT_TRUE(Cache(cache, StableName(i), 1, true));
  cache.ForceSaveToFile();
  ASSERT_EQ(cache.GetNumberOfEffectsInMemory(), 0u);
}

// One writer's round: new versions of some pool names, a save, and now and
// then a removal of some pool names or a compaction. "" when the save
// stored the round's mark, else what went wrong.
std::string WriteRound(EffectCacheImpl& cache, std::mt19937& random, std::uint32_t version) {
  for (int j = 0; j < 6; ++j) Cache(cache, PoolName(static_cast<int>(random() % kPool)), version);
  if (!Cache(cache, MarkName(version), version, true)) return "the cache refused " + MarkName(version);
  cache.ForceSaveToFile();
  std::string problem;
  if (cache.GetNumberOfEffectsInMemory() != 0) problem = "the save of " + MarkName(version) + " left effects in memory";
  if (version % 4 == 1) {
    const std::uint32_t pick = random();
    cache.RemoveStored(
        [pick](const EffectTable::Entry& entry, const EffectCacheImpl::Removed&, std::uint64_t) {
          return entry.name.compare(0, 5, "pool/") == 0 && (Fnv(entry.name) ^ pick) % 3 == 0;
        },
        false, nullptr);
  } else if (version % 4 == 3) {
    cache.CompactFile(nullptr);
  }
  return problem;
}

// The mark of the last round whose save had returned, or "" for none.
using LatestMark = std::function<std::string()>;

// Searches stable and pool names in a random order, `rounds` times, and the
// latest mark now and then; "" when every answer was right.
std::string SearchAll(EffectCacheImpl& cache, std::mt19937& random, int rounds, std::uint64_t* searches,
                      const LatestMark& latest = LatestMark()) {
  for (int r = 0; r < rounds; ++r) {
    if (latest && r % 8 == 0) {
      const std::string mark = latest();
      Tab<unsigned char> data;
      if (!mark.empty() && !cache.SearchCachedEffects(Wide(mark), data)) {
        return "a search missed " + mark + ", whose save had returned before it began";
      }
      if (!mark.empty() && !Judge(mark, data).empty()) return Judge(mark, data);
    }
    const int i = static_cast<int>(random() % (kStable + kPool));
    const std::string name = i < kStable ? StableName(i) : PoolName(i - kStable);
    Tab<unsigned char> data;
    const bool found = cache.SearchCachedEffects(Wide(name), data);
    ++*searches;
    if (!found && i < kStable) return "a search missed " + name + ", saved before the searches began";
    if (found) {
      const std::string wrong = Judge(name, data);
      if (!wrong.empty()) return wrong;
    }
  }
  return "";
}

TEST(EffectCacheParallelTest, ASearchOfAFileNoOneChangedTakesNoNamedMutexAndOnlyReadsItsBytes) {
  Testing::TempDir dir;
  const std::wstring folder = dir.Path().wstring();
  CacheStable(folder);
  EffectCacheImpl cache(WStr(folder.c_str()), 2);
  std::mt19937 random(1);
  std::uint64_t searches = 0;
  ASSERT_EQ(SearchAll(cache, random, 4 * kStable, &searches), "");
  const std::wstring file = cache.GetCacheFileFullPath().data();
  MutexWaits::StartCounting();
  FileFaults::StartCounting();
  for (int i = 0; i < kStable; ++i) {
    Tab<unsigned char> data;
    ASSERT_TRUE(cache.SearchCachedEffects(Wide(StableName(i)), data));
    ASSERT_EQ(Judge(StableName(i), data), "");
  }
  const std::uint64_t reads = FileFaults::Calls(FileCall::kRead);
  const std::uint64_t calls = FileFaults::Calls(FileCall::kAny);
  const std::uint64_t fileWaits = MutexWaits::Started(ChildLauncher::Narrow(CacheFileNames::FileMutexName(file)));
  const std::uint64_t stampWaits =
      MutexWaits::Started(ChildLauncher::Narrow(CacheFileNames::TimeStampName(file) + L"_mutex"));
  FileFaults::Reset();
  MutexWaits::Reset();
  EXPECT_EQ(fileWaits, 0u);
  EXPECT_EQ(stampWaits, 0u);
  EXPECT_EQ(calls, reads) << "a search made a file call other than a read";
  EXPECT_GE(reads, static_cast<std::uint64_t>(kStable));
  EXPECT_LE(reads, static_cast<std::uint64_t>(kStable) * 8);  // an effect of at most 4 pages and a tail
}

// The counter's own proof: another object rewrites the file behind this
// one's back, reusing the removed effects' pages for other names of the
// same sizes, and this object's next searches must see the new tables.
TEST(EffectCacheParallelTest, SearchesAfterAnotherHolderRewroteTheFileReadTheNewTables) {
  Testing::TempDir dir;
  const std::wstring folder = dir.Path().wstring();
  constexpr int kNames = 24;
  EffectCacheImpl reader(WStr(folder.c_str()), 2);
  for (int i = 0; i < kNames; ++i) {
    const auto bytes = EffectTesting::Bytes(100 + static_cast<std::uint32_t>(i), 12000, false);
    ASSERT_TRUE(reader.CacheCompiledEffect(Wide("old/" + std::to_string(i)), bytes.data(), bytes.size(), false));
  }
  reader.ForceSaveToFile();
  for (int i = 0; i < kNames; ++i) {
    Tab<unsigned char> data;
    ASSERT_TRUE(reader.SearchCachedEffects(Wide("old/" + std::to_string(i)), data));
  }
  {
    EffectCacheImpl writer(WStr(folder.c_str()), 2);
    ASSERT_TRUE(writer.RemoveStored([](const EffectTable::Entry&, const EffectCacheImpl::Removed&,
                                       std::uint64_t) { return true; },
                                    false, nullptr));
    for (int i = 0; i < kNames; ++i) {
      const auto bytes = EffectTesting::Bytes(500 + static_cast<std::uint32_t>(i), 12000, false);
      ASSERT_TRUE(writer.CacheCompiledEffect(Wide("new/" + std::to_string(i)), bytes.data(), bytes.size(), false));
    }
    writer.ForceSaveToFile();
  }
  int wrong = 0;
  for (int i = 0; i < kNames; ++i) {
    Tab<unsigned char> data;
    if (reader.SearchCachedEffects(Wide("old/" + std::to_string(i)), data)) ++wrong;
    ASSERT_TRUE(reader.SearchCachedEffects(Wide("new/" + std::to_string(i)), data));
    EXPECT_EQ(EffectTesting::ToVector(data), EffectTesting::Bytes(500 + static_cast<std::uint32_t>(i), 12000, false));
  }
  EXPECT_EQ(wrong, 0) << "searches found removed effects through stale tables";
}

TEST(EffectCacheParallelTest, ThreadsSearchWhileOtherThreadsCacheSaveRemoveAndCompact) {
  Testing::TempDir dir;
  const std::wstring folder = dir.Path().wstring();
  CacheStable(folder);
  EffectCacheImpl shared(WStr(folder.c_str()), 2);
  std::atomic<bool> done{false};
  std::atomic<std::uint32_t> saved{0};
  const LatestMark latest = [&saved] {
    const std::uint32_t v = saved.load();
    return v == 0 ? std::string() : MarkName(v);
  };
  std::vector<std::string> problems(4);
  std::vector<std::uint64_t> searches(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<std::uint32_t>(10 + t));
      while (!done.load() && problems[static_cast<std::size_t>(t)].empty()) {
        problems[static_cast<std::size_t>(t)] =
            SearchAll(shared, random, 16, &searches[static_cast<std::size_t>(t)], latest);
      }
    });
  }
  // The searching object caches and saves too, between its own searches.
  threads.emplace_back([&] {
    std::mt19937 random(20);
    for (std::uint32_t v = 1; !done.load(); ++v) {
      Cache(shared, PoolName(static_cast<int>(random() % kPool)), 0x10000 + v);
      if (v % 8 == 0) shared.ForceSaveToFile();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  {
    EffectCacheImpl writer(WStr(folder.c_str()), 2);
    std::mt19937 random(30);
    for (std::uint32_t v = 1; v <= 40; ++v) {
      const std::string problem = WriteRound(writer, random, v);
      EXPECT_EQ(problem, "") << "round " << v;
      if (!problem.empty()) break;
      saved.store(v);
    }
  }
  done.store(true);
  for (std::thread& thread : threads) thread.join();
  for (std::size_t t = 0; t < 3; ++t) {
    EXPECT_EQ(problems[t], "") << "thread " << t;
    EXPECT_GT(searches[t], 0u);
  }
}

// The latest mark a writer process published (see PublishLatest).
std::string ReadLatest(const fs::path& marks) {
  std::ifstream in(marks / "latest");
  std::string mark;
  std::getline(in, mark);
  return mark;
}

// Names the mark of the round whose save just returned, in a file that
// another name replaces whole. On Windows the replacement fails while a
// searcher has the file open: it is tried again, and when a searcher keeps
// it open, this mark goes unpublished (a searcher then checks against an
// earlier round's, which is as true).
void PublishLatest(const fs::path& marks, const std::string& mark) {
  const fs::path next = marks / "next";
  {
    std::ofstream out(next, std::ios::trunc);
    out << mark << "\n";
  }
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::error_code error;
    fs::rename(next, marks / "latest", error);
    if (!error) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// A host process that searches on two threads until told to stop; exit 0
// when every answer was right, 3 with the first wrong one on stderr.
TOVREL_CHILD_ROLE(parallel_searcher) {
  if (argc != 4) return 2;
  const std::wstring folder = ChildLauncher::Wide(argv[0]);
  const fs::path stop = fs::path(ChildLauncher::Wide(argv[1]));
  const fs::path ready = fs::path(ChildLauncher::Wide(argv[2]));
  const fs::path marks = fs::path(ChildLauncher::Wide(argv[3]));
  const LatestMark latest = [&marks] { return ReadLatest(marks); };
  EffectCacheImpl cache(WStr(folder.c_str()), 2);
  std::vector<std::string> problems(2);
  std::vector<std::uint64_t> searches(2, 0);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<std::uint32_t>(t + 1));
      while (!fs::exists(stop) && problems[t].empty()) problems[t] = SearchAll(cache, random, 32, &searches[t], latest);
    });
  }
  ChildLauncher::Signal(ready);
  for (std::thread& thread : threads) thread.join();
  for (const std::string& problem : problems) {
    if (!problem.empty()) {
      std::fprintf(stderr, "%s\n", problem.c_str());
      return 3;
    }
  }
  return searches[0] > 0 && searches[1] > 0 ? 0 : 4;
}

// A host process that writes round after round until it is killed.
TOVREL_CHILD_ROLE(parallel_writer) {
  if (argc != 3) return 2;
  const std::wstring folder = ChildLauncher::Wide(argv[0]);
  const std::uint32_t run = static_cast<std::uint32_t>(std::atoi(argv[1]));
  const fs::path marks = fs::path(ChildLauncher::Wide(argv[2]));
  EffectCacheImpl cache(WStr(folder.c_str()), 2);
  std::mt19937 random(run);
  for (std::uint32_t v = 1; v < 100000; ++v) {
    const std::string problem = WriteRound(cache, random, (run << 16) + v);
    if (!problem.empty()) {
      std::fprintf(stderr, "%s\n", problem.c_str());
      return 5;
    }
    PublishLatest(marks, MarkName((run << 16) + v));
  }
  return 0;
}

// Writers killed: 12, or TOVREL_PARALLEL_KILLS (tools/crash.sh runs 300).
int KillCount() {
  const char* value = std::getenv("TOVREL_PARALLEL_KILLS");
  const int count = value != nullptr ? std::atoi(value) : 0;
  return count > 0 ? count : 12;
}

TEST(EffectCacheParallelTest, ProcessesSearchWhileWritersAreKilledAtAnyPointOfTheirSaves) {
  Testing::TempDir dir;
  const fs::path folder = dir.Path() / "cache";
  fs::create_directories(folder);
  CacheStable(folder.wstring());
  const fs::path stop = dir.Path() / "stop";
  const fs::path marks = dir.Path() / "marks";
  fs::create_directories(marks);
  std::vector<std::unique_ptr<PlatformProcess>> searchers;
  for (int s = 0; s < 2; ++s) {
    const fs::path ready = dir.Path() / ("ready" + std::to_string(s));
    searchers.push_back(ChildLauncher::Start("parallel_searcher", {ChildLauncher::Narrow(folder.wstring()),
                                                                   ChildLauncher::Narrow(stop.wstring()),
                                                                   ChildLauncher::Narrow(ready.wstring()),
                                                                   ChildLauncher::Narrow(marks.wstring())}));
    ASSERT_NE(searchers.back(), nullptr);
    ASSERT_TRUE(ChildLauncher::WaitForFile(ready, *searchers.back()));
  }
  std::mt19937 random(2026);
  const int kills = KillCount();
  for (int run = 1; run <= kills; ++run) {
    auto writer = ChildLauncher::Start("parallel_writer", {ChildLauncher::Narrow(folder.wstring()), std::to_string(run),
                                                           ChildLauncher::Narrow(marks.wstring())});
    ASSERT_NE(writer, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(20 + random() % 200));
    writer->Kill();
    int exitCode = 0;
    ASSERT_TRUE(writer->Wait(ChildLauncher::kBoundMilliseconds, &exitCode));
    ASSERT_EQ(exitCode, PlatformProcess::kKilledExitCode) << "run " << run;
  }
  ChildLauncher::Signal(stop);
  for (auto& searcher : searchers) EXPECT_EQ(ChildLauncher::Finish(*searcher), 0);
  ::testing::Test::RecordProperty("writers_killed", kills);
}

// A writer whose power goes at a file call of its rounds (every 40th; every
// one with TOVREL_CRASH_EXHAUSTIVE=1): a searcher that
// held a current view before, and one made after, find only right bytes,
// and the second finds every stable effect.
TEST(EffectCacheParallelTest, SearchersMeetOnlyRightBytesAfterTheWritersPowerWentAtAnyCall) {
  const std::wstring folder = L"/parallel-power";
  std::uint64_t calls = 0;
  {
    Testing::InstalledFileSystem files;
    CacheStable(folder);
    EffectCacheImpl writer(WStr(folder.c_str()), 2);
    std::mt19937 random(7);
    FileFaults::StartCounting();
    for (std::uint32_t v = 1; v <= 4; ++v) EXPECT_EQ(WriteRound(writer, random, v), "");
    calls = FileFaults::Calls(FileCall::kAny);
    FileFaults::Reset();
  }
  ASSERT_GT(calls, 20u);
  const std::uint64_t step = Testing::CrashRunner::Exhaustive() ? 1 : calls / 40 + 1;
  for (std::uint64_t n = 1; n <= calls; n += step) {
    Testing::InstalledFileSystem files;
    CacheStable(folder);
    EffectCacheImpl before(WStr(folder.c_str()), 2);
    std::mt19937 searching(static_cast<std::uint32_t>(n));
    std::uint64_t searches = 0;
    ASSERT_EQ(SearchAll(before, searching, 8, &searches), "");
    {
      EffectCacheImpl writer(WStr(folder.c_str()), 2);
      std::mt19937 random(7);
      FileFaults::StartCounting();
      FileFaults::CutPowerAtNth(FileCall::kAny, n);
      for (std::uint32_t v = 1; v <= 4; ++v) WriteRound(writer, random, v);
      FileFaults::Reset();
    }
    files.Memory().RestorePower(static_cast<std::uint32_t>(n));
    for (int i = 0; i < kStable + kPool; ++i) {
      const std::string name = i < kStable ? StableName(i) : PoolName(i - kStable);
      Tab<unsigned char> data;
      if (before.SearchCachedEffects(Wide(name), data)) {
        ASSERT_EQ(Judge(name, data), "") << "cut at call " << n;
      }
    }
    EffectCacheImpl after(WStr(folder.c_str()), 2);
    ASSERT_EQ(SearchAll(after, searching, 4 * (kStable + kPool), &searches), "") << "cut at call " << n;
  }
}

}  // namespace
}  // namespace Tovrel
