// Page-level benchmarks. Each reports the library's figure beside a
// baseline measured in the same run, and their ratio:
// - 64 MiB written then read through the page cache (64 pages) against
//   plain fwrite/fread of the same bytes in 8 KiB blocks;
// - the page allocator's cost per operation at 10,000 and at 1,000,000
//   pages (allocate, free every second page, reallocate, save, load);
// - opening and walking a 2,000-page head chain against fread of the file.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "host/RefPtr.h"
#include "pagefile/FilePageCache.h"
#include "pagefile/HeadFileSeeker.h"
#include "pagefile/HeadFileWriteOnlySeeker.h"
#include "pagefile/PageRef.h"
#include "platform/NativeFile.h"
#include "platform/PlatformFile.h"
#include "streams/PageAllocator.h"
#include "support/MemoryDataStream.h"
#include "support/TempDir.h"
#include "StdioBaseline.h"

namespace Tovrel {
namespace {

using Bench::Bytes;
using Bench::Clock;
using Bench::Seconds;

constexpr std::size_t kSequentialBytes = 64u << 20;

double CacheWriteRead(const std::wstring& path, const std::vector<std::uint8_t>& in,
                      std::vector<std::uint8_t>& out) {
  PlatformFile::Remove(path.c_str());
  const auto start = Clock::now();
  {
    FilePageCache cache(path.c_str(), 64);
    for (std::size_t i = 0; i < in.size() / kPageSize; ++i) {
      PageRef page(&cache);
      std::memcpy(page.AcquireForWrite(kFirstPageId + i), in.data() + i * kPageSize, kPageSize);
    }
    cache.Close();
    cache.Open(path.c_str(), 64);
    for (std::size_t i = 0; i < out.size() / kPageSize; ++i) {
      PageRef page(&cache);
      std::memcpy(out.data() + i * kPageSize, page.AcquireForRead(kFirstPageId + i), kPageSize);
    }
  }
  return Seconds(start);
}

void BM_PageCacheSequentialVsStdio(benchmark::State& state) {
  Testing::TempDir dir;
  const std::wstring cachePath = dir.File("cache.bin");
  const std::wstring plainPath = dir.File("plain.bin");
  const auto in = Bytes(kSequentialBytes);
  std::vector<std::uint8_t> out(in.size());
  double plain = 0, cached = 0;
  for (auto _ : state) {
    plain += Bench::PlainWriteRead(plainPath, in, out, kPageSize);
    const double t = CacheWriteRead(cachePath, in, out);
    cached += t;
    state.SetIterationTime(t);
  }
  if (out != in) state.SkipWithError("bytes differ");
  const double mib = 2.0 * kSequentialBytes / (1 << 20) * static_cast<double>(state.iterations());
  state.counters["cache_MiBps"] = mib / cached;
  state.counters["stdio_MiBps"] = mib / plain;
  state.counters["ratio"] = plain / cached;
}
BENCHMARK(BM_PageCacheSequentialVsStdio)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

// Nanoseconds per operation of the allocator over n pages.
double AllocatorNsPerOperation(std::uint64_t n) {
  const auto start = Clock::now();
  RefPtr<PageAllocator> pages(new PageAllocator);
  for (std::uint64_t i = 0; i < n; ++i) pages->AllocatePage(0);
  for (std::uint64_t id = kFirstPageId; id < kFirstPageId + n; id += 2) pages->FreePage(id);
  for (std::uint64_t i = 0; i < n / 2; ++i) pages->AllocatePage(0);
  RefPtr<IDataStream> stream(new Testing::MemoryDataStream(pages->GetTableSaveSize()));
  pages->SaveTable(stream);
  stream->Seek(0, 0);
  RefPtr<PageAllocator> loaded(new PageAllocator);
  loaded->LoadTable(stream);
  const double operations = static_cast<double>(n + n / 2 + n / 2 + n + n);
  benchmark::DoNotOptimize(loaded->GetHighestPage());
  return Seconds(start) * 1e9 / operations;
}

void BM_PageAllocatorScaling(benchmark::State& state) {
  double small = 0, large = 0;
  for (auto _ : state) {
    small += AllocatorNsPerOperation(10000);
    large += AllocatorNsPerOperation(1000000);
  }
  const auto runs = static_cast<double>(state.iterations());
  state.counters["ns_per_op_10k"] = small / runs;
  state.counters["ns_per_op_1m"] = large / runs;
  state.counters["ratio_1m_to_10k"] = large / small;
}
BENCHMARK(BM_PageAllocatorScaling)->Iterations(5)->Unit(benchmark::kMillisecond);

constexpr std::uint64_t kHeadPages = 2000;

void WriteHeadChain(const std::wstring& path, std::uint64_t size) {
  FilePageCache cache(path.c_str(), 64);
  std::vector<std::uint64_t> ids(kHeadPages), nexts(kHeadPages, 0);
  for (std::uint64_t i = 0; i < kHeadPages; ++i) ids[i] = kFirstPageId + i;
  for (std::uint64_t i = 0; i + 1 < kHeadPages; ++i) nexts[i] = ids[i + 1];
  for (std::uint64_t id : ids) cache.EnsureFileCoversPage(id);
  RefPtr<HeadFileWriteOnlySeeker> writer(new HeadFileWriteOnlySeeker(&cache));
  writer->InitializeForWrite(ids.data(), nexts.data(), kHeadPages, size);
  writer->LoadPagesUpTo(kHeadPages - 1);
}

void BM_HeadChainWalkVsFread(benchmark::State& state) {
  Testing::TempDir dir;
  const std::wstring path = dir.File("head.bin");
  const std::uint64_t size = kFirstPagePayload + (kHeadPages - 1) * kPagePayload;
  WriteHeadChain(path, size);
  std::vector<std::uint8_t> out(kHeadPages * kPageSize);
  double plain = 0, walked = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    std::FILE* file = NativeFile::Open(path.c_str(), "rb");
    for (std::uint64_t i = 0; i < kHeadPages; ++i) {
      if (std::fread(out.data() + i * kPageSize, kPageSize, 1, file) != 1) std::abort();
    }
    std::fclose(file);
    plain += Seconds(start);

    start = Clock::now();
    FilePageCache cache(path.c_str(), 64);
    RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
    seeker->OpenForRead();
    std::uint64_t copied = 0;
    for (std::uint64_t i = 0; i < kHeadPages; ++i) {
      seeker->LoadPagesUpTo(i);
      PageRef page(&cache);
      const PageRange range = seeker->pageRanges[i];
      std::memcpy(out.data() + copied, page.AcquireForRead(seeker->pageIds[i]) + range.begin, range.end - range.begin);
      copied += range.end - range.begin;
    }
    const double t = Seconds(start);
    walked += t;
    state.SetIterationTime(t);
    if (copied != size) state.SkipWithError("short walk");
  }
  state.counters["walk_ms"] = walked * 1e3 / static_cast<double>(state.iterations());
  state.counters["fread_ms"] = plain * 1e3 / static_cast<double>(state.iterations());
  state.counters["ratio"] = plain / walked;
}
BENCHMARK(BM_HeadChainWalkVsFread)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace Tovrel

BENCHMARK_MAIN();
