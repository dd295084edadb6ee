// StdioBaseline: what the benchmarks measure the library against: plain
// stdio transfers of the same bytes, timed in the same run, and the seeded
// bytes they move. Header-only, used by every bench program.
#ifndef TOVREL_BENCH_STDIOBASELINE_H
#define TOVREL_BENCH_STDIOBASELINE_H

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/NativeFile.h"

namespace Tovrel {
namespace Bench {

using Clock = std::chrono::steady_clock;

inline double Seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

inline std::vector<std::uint8_t> Bytes(std::size_t size, std::uint32_t seed = 0) {
  std::vector<std::uint8_t> bytes(size);
  std::uint32_t x = 12345 + seed * 2654435761u;
  for (auto& b : bytes) {
    x = x * 1103515245u + 12345u;
    b = static_cast<std::uint8_t>(x >> 16);
  }
  return bytes;
}

// Seconds to fwrite `in` to a new file and fread it back into `out`, in
// blocks of `block` bytes.
// With `sync`, the written file is flushed to stable storage before it is
// closed, as a package's save does.
inline double PlainWriteRead(const std::wstring& path, const std::vector<std::uint8_t>& in,
                             std::vector<std::uint8_t>& out, std::size_t block, bool sync = false) {
  const auto start = Clock::now();
  std::FILE* file = NativeFile::Open(path.c_str(), "w+b");
  for (std::size_t at = 0; at < in.size(); at += block) std::fwrite(in.data() + at, block, 1, file);
  if (sync && NativeFile::Sync(file) != 0) std::abort();
  std::fclose(file);
  file = NativeFile::Open(path.c_str(), "rb");
  for (std::size_t at = 0; at < out.size(); at += block) {
    if (std::fread(out.data() + at, block, 1, file) != 1) std::abort();
  }
  std::fclose(file);
  return Seconds(start);
}

}  // namespace Bench
}  // namespace Tovrel

#endif
