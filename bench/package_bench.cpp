// Package benchmarks. Each reports the library's figure beside a baseline
// measured in the same run:
// - a 64 MiB stream written then read through a package (cache of 64
//   pages) against plain fwrite/fread of the same bytes in the same blocks;
// - 1,000, 10,000 and 65,535 streams of seeded random sizes (1 to 20,000
//   bytes) created, written, saved, reopened and read: the cost per stream
//   at each count, against the cost per stream at 1,000;
// - opening the package of 65,535 streams: milliseconds and the bytes of
//   its head stream, against reading the same bytes with fread.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <vector>

#include "pagefile/LittleEndian.h"
#include "platform/NativeFile.h"
#include "platform/PlatformFile.h"
#include "support/TempDir.h"
#include "tovrel/FilePackage.h"
#include "StdioBaseline.h"

namespace Tovrel {
namespace {

using Bench::Bytes;
using Bench::Clock;
using Bench::Seconds;

constexpr std::size_t kStreamBytes = 64u << 20;
constexpr std::size_t kBlock = 64 * 1024;

double PackageWriteRead(const std::wstring& path, const std::vector<std::uint8_t>& in,
                        std::vector<std::uint8_t>& out) {
  PlatformFile::Remove(path.c_str());
  const PagedFilePackageConfig config{path.c_str(), 64, 65535};
  const auto start = Clock::now();
  {
    RefPtr<IDataStreamSet> package = CreateFilePackage(config);
    const std::uint64_t id = package->CreateStream(in.size());
    RefPtr<IDataStream> stream = package->OpenStream(id);
    for (std::size_t at = 0; at < in.size(); at += kBlock) stream->Write(in.data() + at, kBlock);
    stream.Reset();
    package->Save();
  }
  RefPtr<IDataStreamSet> package = OpenFilePackage(config);
  RefPtr<IDataStream> stream = package->OpenStream(package->GetStreamIdentifier(0));
  for (std::size_t at = 0; at < out.size(); at += kBlock) stream->Read(out.data() + at, kBlock);
  return Seconds(start);
}

void BM_PackageStreamVsStdio(benchmark::State& state) {
  Testing::TempDir dir;
  const std::wstring packagePath = dir.File("stream.dat");
  const std::wstring plainPath = dir.File("plain.bin");
  const auto in = Bytes(kStreamBytes, 1);
  std::vector<std::uint8_t> out(in.size());
  double plain = 0, synced = 0, packaged = 0;
  for (auto _ : state) {
    plain += Bench::PlainWriteRead(plainPath, in, out, kBlock);
    synced += Bench::PlainWriteRead(plainPath, in, out, kBlock, true);
    const double t = PackageWriteRead(packagePath, in, out);
    packaged += t;
    state.SetIterationTime(t);
  }
  if (out != in) state.SkipWithError("bytes differ");
  const double mib = 2.0 * kStreamBytes / (1 << 20) * static_cast<double>(state.iterations());
  state.counters["package_MiBps"] = mib / packaged;
  state.counters["stdio_MiBps"] = mib / plain;
  state.counters["ratio"] = plain / packaged;
  // The package's save syncs the file; the same stdio run with one sync
  // before its close is the like-for-like baseline.
  state.counters["stdio_synced_MiBps"] = mib / synced;
  state.counters["ratio_vs_synced"] = synced / packaged;
}
BENCHMARK(BM_PackageStreamVsStdio)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

// Creates, writes, saves, reopens and reads `count` streams of seeded
// sizes; microseconds per stream.
double MicrosecondsPerStream(const std::wstring& path, std::uint64_t count) {
  std::mt19937 random(static_cast<std::uint32_t>(count));
  std::vector<std::uint64_t> sizes(count);
  for (auto& size : sizes) size = 1 + random() % 20000;
  const auto bytes = Bytes(20000, 7);
  std::vector<std::uint8_t> back(20000);
  PlatformFile::Remove(path.c_str());
  const PagedFilePackageConfig config{path.c_str(), 64, 65535};
  const auto start = Clock::now();
  {
    RefPtr<IDataStreamSet> package = CreateFilePackage(config);
    for (std::uint64_t size : sizes) {
      RefPtr<IDataStream> stream = package->OpenStream(package->CreateStream(size));
      stream->Write(bytes.data(), size);
    }
    package->Save();
  }
  RefPtr<IDataStreamSet> package = OpenFilePackage(config);
  std::uint64_t read = 0;
  for (std::uint64_t i = 0; i < package->GetNumberOfStreams(); ++i) {
    RefPtr<IDataStream> stream = package->OpenStream(package->GetStreamIdentifier(i));
    read += stream->Read(back.data(), back.size());
  }
  const double elapsed = Seconds(start);
  std::uint64_t expected = 0;
  for (std::uint64_t size : sizes) expected += size;
  if (read != expected) std::abort();
  return elapsed * 1e6 / static_cast<double>(count);
}

void BM_PackageManyStreams(benchmark::State& state) {
  Testing::TempDir dir;
  const std::wstring path = dir.File("many.dat");
  double small = 0, middle = 0, large = 0;
  for (auto _ : state) {
    small += MicrosecondsPerStream(path, 1000);
    middle += MicrosecondsPerStream(path, 10000);
    large += MicrosecondsPerStream(path, 65535);
  }
  const auto runs = static_cast<double>(state.iterations());
  state.counters["us_per_stream_1k"] = small / runs;
  state.counters["us_per_stream_10k"] = middle / runs;
  state.counters["us_per_stream_65535"] = large / runs;
  state.counters["ratio_65535_to_1k"] = large / small;
}
BENCHMARK(BM_PackageManyStreams)->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_OpenLargePackage(benchmark::State& state) {
  Testing::TempDir dir;
  const std::wstring path = dir.File("large.dat");
  MicrosecondsPerStream(path, 65535);
  std::vector<std::uint8_t> header(8192);
  std::FILE* file = NativeFile::Open(path.c_str(), "rb");
  if (file == nullptr || std::fread(header.data(), 8192, 1, file) != 1) std::abort();
  std::fclose(file);
  const std::uint64_t headBytes = LittleEndian::Load64(header.data() + 8);
  const std::uint64_t headPages = LittleEndian::Load64(header.data());
  const PagedFilePackageConfig config{path.c_str(), 64, 65535};
  std::vector<std::uint8_t> plainBytes(headPages * 8192);
  double opening = 0, plain = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    std::FILE* raw = NativeFile::Open(path.c_str(), "rb");
    if (std::fread(plainBytes.data(), plainBytes.size(), 1, raw) != 1) std::abort();
    std::fclose(raw);
    plain += Seconds(start);
    start = Clock::now();
    RefPtr<IDataStreamSet> package = OpenFilePackage(config);
    const double t = Seconds(start);
    if (!package || package->GetNumberOfStreams() != 65535) state.SkipWithError("not opened");
    opening += t;
    state.SetIterationTime(t);
  }
  const auto runs = static_cast<double>(state.iterations());
  state.counters["open_ms"] = opening * 1e3 / runs;
  state.counters["head_bytes"] = static_cast<double>(headBytes);
  state.counters["fread_head_ms"] = plain * 1e3 / runs;
  state.counters["ratio"] = plain / opening;
}
BENCHMARK(BM_OpenLargePackage)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace Tovrel

BENCHMARK_MAIN();
