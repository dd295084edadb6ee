// EffectBatchCompressor: compresses the effects of one save, several at a
// time on short-lived worker threads.
//
// A save compresses every pending effect before it writes any of them, so
// that compression (most of a save's time) runs on every core the machine
// offers instead of one, and the page writes that follow find their bytes
// ready. Small batches are compressed on the calling thread: a thread costs
// more than compressing a few kilobytes. The workers live only for the
// duration of CompressAll and touch nothing but their own jobs' input and
// output; the input bytes must stay unchanged until CompressAll returns.
// Called from a thread of lowered priority (a background save's), they
// run at that priority too.
//
// Stateless; CompressAll may be called from any thread.
#ifndef TOVREL_EFFECTCACHE_EFFECTBATCHCOMPRESSOR_H
#define TOVREL_EFFECTCACHE_EFFECTBATCHCOMPRESSOR_H

#include <cstdint>
#include <vector>

namespace Tovrel {

class EffectBatchCompressor {
 public:
  // One effect to compress: bytes..bytes+size, read only.
  struct Job {
    const std::uint8_t* bytes;
    std::uint64_t size;
  };
  // What became of a job: ok, and then the compressed bytes (exactly as
  // EffectCompression::CompressEffect writes them) and the milliseconds
  // the compression took on its thread.
  struct Result {
    bool ok = false;
    std::vector<std::uint8_t> compressed;
    std::uint32_t milliseconds = 0;
  };

  // Below this many input bytes in all, a batch is compressed on the
  // calling thread alone.
  static constexpr std::uint64_t kMinBytesForWorkers = 512 * 1024;
  // Never more worker threads than this, whatever the machine has.
  static constexpr unsigned kMostWorkers = 8;

  // Compresses every job at `level`; results in the jobs' order. A job that
  // fails (no memory, a zlib error) is reported not ok; the others are
  // unaffected. Never throws.
  static std::vector<Result> CompressAll(const std::vector<Job>& jobs, int level);

  // The worker threads a batch of `jobs` jobs and `totalBytes` input bytes
  // gets on a machine with `cores` cores: 0 means the calling thread alone.
  static unsigned WorkersFor(std::size_t jobs, std::uint64_t totalBytes, unsigned cores);

 private:
  static void CompressOne(const Job& job, int level, Result& result);
};

}  // namespace Tovrel

#endif
