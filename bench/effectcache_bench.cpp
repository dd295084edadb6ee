// Effect cache benchmarks over one workload (EffectWorkload: 10,000
// effects of 2 KiB to 64 KiB, shaped like shader bytecode, seeded).
// - Save: cache every effect, then ForceSaveToFile; against compress2 at
//   level 2 of the same bytes alone (the limit), and against the same
//   effects compressed the same way and stored by each peer, keyed by their
//   UTF-8 names, one transaction (or write batch) per 2 MiB of effects,
//   with the peer's default durability: SQLite (WAL, synchronous FULL),
//   LMDB (synced commits) and LevelDB (unsynced writes to its log).
// - Cold search: a new cache object on the saved folder looks up every
//   name; against uncompress of the same compressed bytes alone and
//   libdeflate's decoding of them alone, and against each peer opened
//   afresh looking up the same names and uncompressing them, with zlib's
//   uncompress and again with libdeflate (so that the storage's share can
//   be told from the decoder's).
// - Each store's time runs from opening it to the return of its last call;
//   closing it is reported apart (the SQLite checkpoint, the LevelDB
//   compaction still under way).
// - Open: constructing an EffectCacheSystem on the saved folder.
// - The journal's cost: the same save with journaling off (no journal, no
//   sync: not crash-safe, for comparison only), and the syncs per save.
// - Our save alone and our search alone, for profiles (PerfPhase marks
//   both phases in every benchmark).
#include <benchmark/benchmark.h>
#include <libdeflate.h>
#include <zlib.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "EffectWorkload.h"
#include "LeveldbStore.h"
#include "LmdbStore.h"
#include "PerfPhase.h"
#include "SqliteStore.h"
#include "StdioBaseline.h"
#include "pagefile/FilePageCache.h"
#include "platform/FileFaults.h"
#include "support/TempDir.h"
#include "tovrel/tovrel.h"

namespace Tovrel {
namespace {

using Bench::Clock;
using Bench::EffectWorkload;
using Bench::PerfPhase;
using Bench::Seconds;

double MiB(std::size_t bytes) { return static_cast<double>(bytes) / (1 << 20); }

std::vector<std::vector<unsigned char>> CompressAll(const EffectWorkload& w, double* seconds) {
  std::vector<std::vector<unsigned char>> out(w.effects.size());
  const auto start = Clock::now();
  for (std::size_t i = 0; i < w.effects.size(); ++i) EffectWorkload::Compress(w.effects[i], out[i], 0);
  *seconds = Seconds(start);
  return out;
}

double UncompressAll(const EffectWorkload& w, const std::vector<std::vector<unsigned char>>& compressed) {
  std::vector<unsigned char> buffer(EffectWorkload::kMaxEffectBytes);
  const auto start = Clock::now();
  for (std::size_t i = 0; i < compressed.size(); ++i) {
    uLongf length = static_cast<uLongf>(w.effects[i].size());
    uncompress(buffer.data(), &length, compressed[i].data(), static_cast<uLong>(compressed[i].size()));
  }
  return Seconds(start);
}

double LibdeflateAll(const EffectWorkload& w, const std::vector<std::vector<unsigned char>>& compressed) {
  std::vector<unsigned char> buffer(EffectWorkload::kMaxEffectBytes);
  libdeflate_decompressor* decompressor = libdeflate_alloc_decompressor();
  if (decompressor == nullptr) std::abort();
  const auto start = Clock::now();
  for (std::size_t i = 0; i < compressed.size(); ++i) {
    EffectWorkload::Decode(compressed[i].data(), compressed[i].size(), w.effects[i].size(), buffer.data(),
                           decompressor);
  }
  const double seconds = Seconds(start);
  libdeflate_free_decompressor(decompressor);
  return seconds;
}

// Seconds to cache every effect and save, from constructing the cache to
// the return of ForceSaveToFile; the seconds of releasing the cache after
// that go to `closeSeconds` when given.
double CacheSaveAll(const EffectWorkload& w, const std::wstring& folder, double* closeSeconds = nullptr) {
  const auto start = Clock::now();
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder.c_str())));
  for (std::size_t i = 0; i < w.effects.size(); ++i) {
    cache->CacheCompiledEffect(WStr(w.names[i].c_str()), w.effects[i].data(), w.effects[i].size(), false);
  }
  cache->ForceSaveToFile();
  const double t = Seconds(start);
  if (cache->GetNumberOfEffectsInFile() != w.effects.size()) std::abort();
  const auto closing = Clock::now();
  cache.Reset();
  if (closeSeconds) *closeSeconds = Seconds(closing);
  return t;
}

double CacheSearchAll(const EffectWorkload& w, const std::wstring& folder, double* openSeconds) {
  const auto start = Clock::now();
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder.c_str())));
  *openSeconds = Seconds(start);
  Tab<unsigned char> data;
  for (std::size_t i = 0; i < w.effects.size(); ++i) {
    if (!cache->SearchCachedEffects(WStr(w.names[i].c_str()), data)) std::abort();
  }
  return Seconds(start);
}

// Seconds of the same save with journaling off.
double CacheSaveAllUnjournaled(const EffectWorkload& w, const std::wstring& folder) {
  FilePageCache::SetJournaling(false);
  const double t = CacheSaveAll(w, folder);
  FilePageCache::SetJournaling(true);
  return t;
}

// A peer's seconds for one phase: from opening its store to the return of
// the phase's last call, then closing the store.
struct PeerTimes {
  double seconds = 0;
  double closeSeconds = 0;
};

template <class Store, class Phase>
PeerTimes TimePeer(const std::filesystem::path& path, Phase phase) {
  PeerTimes times;
  const auto start = Clock::now();
  auto store = std::make_unique<Store>(path.string());
  phase(*store);
  times.seconds = Seconds(start);
  const auto closing = Clock::now();
  store.reset();
  times.closeSeconds = Seconds(closing);
  return times;
}

// A peer's save into a new store at `path`, then its cold search there
// with uncompress, then another with libdeflate (its decompressor made
// before the store is opened).
struct PeerRun {
  PeerTimes save;
  PeerTimes search;
  PeerTimes searchLibdeflate;
};

template <class Store>
PeerRun RunPeer(const std::filesystem::path& path, const EffectWorkload& w) {
  PeerRun run;
  run.save = TimePeer<Store>(path, [&w](Store& store) { store.SaveAll(w); });
  run.search = TimePeer<Store>(path, [&w](Store& store) { store.SearchAll(w); });
  libdeflate_decompressor* decompressor = libdeflate_alloc_decompressor();
  if (decompressor == nullptr) std::abort();
  run.searchLibdeflate =
      TimePeer<Store>(path, [&w, decompressor](Store& store) { store.SearchAll(w, decompressor); });
  libdeflate_free_decompressor(decompressor);
  return run;
}

void BM_EffectCacheSaveAndSearch(benchmark::State& state) {
  const EffectWorkload& w = EffectWorkload::Get();
  double ours = 0, oursClose = 0, compress = 0, search = 0, uncompressTime = 0, libdeflateTime = 0, open = 0;
  double unjournaled = 0, syncs = 0, saves = 0;
  PeerRun sqlite, lmdb, leveldb;
  std::size_t compressedBytes = 0;
  for (auto _ : state) {
    Testing::TempDir dir;
    const auto compressed = CompressAll(w, &compress);
    compressedBytes = 0;
    for (const auto& c : compressed) compressedBytes += c.size();
    {
      Testing::TempDir plain;
      unjournaled = CacheSaveAllUnjournaled(w, plain.Path().wstring());
    }
    FileFaults::StartCounting();
    {
      PerfPhase phase("save");
      ours = CacheSaveAll(w, dir.Path().wstring(), &oursClose);
    }
    syncs = static_cast<double>(FileFaults::Calls(FileCall::kSync));
    saves = static_cast<double>(FileFaults::Calls(FileCall::kRemove));  // each save deletes its journal
    FileFaults::Reset();
    {
      PerfPhase phase("search");
      search = CacheSearchAll(w, dir.Path().wstring(), &open);
    }
    uncompressTime = UncompressAll(w, compressed);
    libdeflateTime = LibdeflateAll(w, compressed);
    sqlite = RunPeer<Bench::SqliteStore>(dir.Path() / "effects.sqlite", w);
    std::filesystem::create_directory(dir.Path() / "effects.lmdb");
    lmdb = RunPeer<Bench::LmdbStore>(dir.Path() / "effects.lmdb", w);
    leveldb = RunPeer<Bench::LeveldbStore>(dir.Path() / "effects.leveldb", w);
    state.SetIterationTime(ours);
  }
  const double mib = MiB(w.totalBytes);
  state.counters["effects_MiB"] = mib;
  state.counters["compression_ratio"] = static_cast<double>(w.totalBytes) / static_cast<double>(compressedBytes);
  state.counters["save_MiBps"] = mib / ours;
  state.counters["save_vs_compress2"] = compress / ours;
  state.counters["save_vs_sqlite"] = sqlite.save.seconds / ours;
  state.counters["save_vs_lmdb"] = lmdb.save.seconds / ours;
  state.counters["save_vs_leveldb"] = leveldb.save.seconds / ours;
  state.counters["save_vs_unjournaled"] = unjournaled / ours;
  state.counters["saves"] = saves;
  state.counters["syncs_per_save"] = saves > 0 ? syncs / saves : 0;
  state.counters["close_ms"] = oursClose * 1e3;
  state.counters["sqlite_close_ms"] = sqlite.save.closeSeconds * 1e3;
  state.counters["lmdb_close_ms"] = lmdb.save.closeSeconds * 1e3;
  state.counters["leveldb_close_ms"] = leveldb.save.closeSeconds * 1e3;
  state.counters["search_MiBps"] = mib / search;
  state.counters["search_vs_uncompress"] = uncompressTime / search;
  state.counters["search_vs_libdeflate"] = libdeflateTime / search;
  state.counters["search_vs_sqlite"] = sqlite.search.seconds / search;
  state.counters["search_vs_lmdb"] = lmdb.search.seconds / search;
  state.counters["search_vs_leveldb"] = leveldb.search.seconds / search;
  state.counters["search_vs_sqlite_libdeflate"] = sqlite.searchLibdeflate.seconds / search;
  state.counters["search_vs_lmdb_libdeflate"] = lmdb.searchLibdeflate.seconds / search;
  state.counters["search_vs_leveldb_libdeflate"] = leveldb.searchLibdeflate.seconds / search;
  state.counters["open_ms"] = open * 1e3;
}
BENCHMARK(BM_EffectCacheSaveAndSearch)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

// Our save alone.
void BM_EffectCacheSaveOnly(benchmark::State& state) {
  const EffectWorkload& w = EffectWorkload::Get();
  double seconds = 0;
  for (auto _ : state) {
    Testing::TempDir dir;
    {
      PerfPhase phase("save");
      seconds = CacheSaveAll(w, dir.Path().wstring());
    }
    state.SetIterationTime(seconds);
  }
  state.counters["save_MiBps"] = MiB(w.totalBytes) / seconds;
}
BENCHMARK(BM_EffectCacheSaveOnly)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

// Our cold search alone, on a folder saved before it starts.
void BM_EffectCacheSearchOnly(benchmark::State& state) {
  const EffectWorkload& w = EffectWorkload::Get();
  Testing::TempDir dir;
  CacheSaveAll(w, dir.Path().wstring());
  double seconds = 0, open = 0;
  for (auto _ : state) {
    {
      PerfPhase phase("search");
      seconds = CacheSearchAll(w, dir.Path().wstring(), &open);
    }
    state.SetIterationTime(seconds);
  }
  state.counters["search_MiBps"] = MiB(w.totalBytes) / seconds;
}
BENCHMARK(BM_EffectCacheSearchOnly)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace Tovrel

BENCHMARK_MAIN();
