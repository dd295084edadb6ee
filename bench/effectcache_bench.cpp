// Effect cache benchmarks over one workload: 10,000 effects of 2 KiB to
// 64 KiB (log-uniform), shaped like shader bytecode, seeded.
// - Save: cache every effect, then ForceSaveToFile; against compress2 at
//   level 2 of the same bytes alone (the limit), and against the same
//   batches stored in SQLite (name -> compressed blob, WAL, one
//   transaction per batch of 2 MiB).
// - Cold search: a new cache object on the saved folder looks up every
//   name; against uncompress of the same compressed bytes alone, and
//   against SQLite look-ups of the same names.
// - Open: constructing an EffectCacheSystem on the saved folder.
// - The journal's cost: the same save with journaling off (no journal, no
//   sync: not crash-safe, for comparison only), and the syncs per save.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <zlib.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "StdioBaseline.h"
#include "pagefile/FilePageCache.h"
#include "platform/FileFaults.h"
#include "support/EffectTesting.h"
#include "support/TempDir.h"
#include "tovrel/tovrel.h"

namespace Tovrel {
namespace {

using Bench::Clock;
using Bench::Seconds;

constexpr std::size_t kEffects = 10000;
constexpr std::size_t kBatchBytes = 2u << 20;

struct Workload {
  std::vector<std::wstring> names;
  std::vector<std::string> utf8Names;
  std::vector<std::vector<unsigned char>> effects;
  std::size_t totalBytes = 0;
};

const Workload& TheWorkload() {
  static const Workload workload = [] {
    Workload w;
    std::mt19937 random(2026);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (std::size_t i = 0; i < kEffects; ++i) {
      const auto size = static_cast<std::size_t>(std::exp(std::log(2048.0) + unit(random) * std::log(32.0)));
      w.names.push_back(L"shaders/material" + std::to_wstring(i) + L".fx");
      w.utf8Names.push_back("shaders/material" + std::to_string(i) + ".fx");
      w.effects.push_back(Testing::EffectTesting::Bytes(static_cast<std::uint32_t>(i), size, true));
      w.totalBytes += size;
    }
    return w;
  }();
  return workload;
}

double MiB(std::size_t bytes) { return static_cast<double>(bytes) / (1 << 20); }

std::vector<std::vector<unsigned char>> CompressAll(const Workload& w, double* seconds) {
  std::vector<std::vector<unsigned char>> out;
  const auto start = Clock::now();
  for (const auto& effect : w.effects) {
    uLongf length = compressBound(static_cast<uLong>(effect.size()));
    std::vector<unsigned char> buffer(length);
    compress2(buffer.data(), &length, effect.data(), static_cast<uLong>(effect.size()), 2);
    buffer.resize(length);
    out.push_back(std::move(buffer));
  }
  *seconds = Seconds(start);
  return out;
}

double UncompressAll(const Workload& w, const std::vector<std::vector<unsigned char>>& compressed) {
  std::vector<unsigned char> buffer(64 * 1024);
  const auto start = Clock::now();
  for (std::size_t i = 0; i < compressed.size(); ++i) {
    uLongf length = static_cast<uLongf>(w.effects[i].size());
    uncompress(buffer.data(), &length, compressed[i].data(), static_cast<uLong>(compressed[i].size()));
  }
  return Seconds(start);
}

double CacheSaveAll(const Workload& w, const std::wstring& folder) {
  const auto start = Clock::now();
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder.c_str())));
  for (std::size_t i = 0; i < w.effects.size(); ++i) {
    cache->CacheCompiledEffect(WStr(w.names[i].c_str()), w.effects[i].data(), w.effects[i].size(), false);
  }
  cache->ForceSaveToFile();
  const double t = Seconds(start);
  if (cache->GetNumberOfEffectsInFile() != w.effects.size()) std::abort();
  return t;
}

double CacheSearchAll(const Workload& w, const std::wstring& folder, double* openSeconds) {
  const auto start = Clock::now();
  RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(WStr(folder.c_str())));
  *openSeconds = Seconds(start);
  Tab<unsigned char> data;
  for (std::size_t i = 0; i < w.effects.size(); ++i) {
    if (!cache->SearchCachedEffects(WStr(w.names[i].c_str()), data)) std::abort();
  }
  return Seconds(start);
}

// The same workload in SQLite: one table name -> zlib-compressed blob.
class SqliteStore {
 public:
  explicit SqliteStore(const std::string& path) {
    sqlite3_open(path.c_str(), &db_);
    sqlite3_exec(db_, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
    sqlite3_exec(db_, "CREATE TABLE IF NOT EXISTS effects (name TEXT PRIMARY KEY, size INTEGER, data BLOB)",
                 nullptr, nullptr, nullptr);
  }
  ~SqliteStore() { sqlite3_close(db_); }

  double SaveAll(const Workload& w) {
    const auto start = Clock::now();
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db_, "INSERT OR REPLACE INTO effects VALUES (?, ?, ?)", -1, &insert, nullptr);
    std::size_t batch = 0;
    sqlite3_exec(db_, "BEGIN", nullptr, nullptr, nullptr);
    for (std::size_t i = 0; i < w.effects.size(); ++i) {
      uLongf length = compressBound(static_cast<uLong>(w.effects[i].size()));
      std::vector<unsigned char> buffer(length);
      compress2(buffer.data(), &length, w.effects[i].data(), static_cast<uLong>(w.effects[i].size()), 2);
      sqlite3_bind_text(insert, 1, w.utf8Names[i].c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_int64(insert, 2, static_cast<sqlite3_int64>(w.effects[i].size()));
      sqlite3_bind_blob(insert, 3, buffer.data(), static_cast<int>(length), SQLITE_TRANSIENT);
      sqlite3_step(insert);
      sqlite3_reset(insert);
      batch += w.effects[i].size();
      if (batch >= kBatchBytes) {
        sqlite3_exec(db_, "COMMIT; BEGIN", nullptr, nullptr, nullptr);
        batch = 0;
      }
    }
    sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_finalize(insert);
    return Seconds(start);
  }

  double SearchAll(const Workload& w) {
    const auto start = Clock::now();
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(db_, "SELECT size, data FROM effects WHERE name = ?", -1, &select, nullptr);
    std::vector<unsigned char> buffer(64 * 1024);
    for (std::size_t i = 0; i < w.effects.size(); ++i) {
      sqlite3_bind_text(select, 1, w.utf8Names[i].c_str(), -1, SQLITE_STATIC);
      if (sqlite3_step(select) != SQLITE_ROW) std::abort();
      uLongf length = static_cast<uLongf>(sqlite3_column_int64(select, 0));
      uncompress(buffer.data(), &length, static_cast<const Bytef*>(sqlite3_column_blob(select, 1)),
                 static_cast<uLong>(sqlite3_column_bytes(select, 1)));
      sqlite3_reset(select);
    }
    sqlite3_finalize(select);
    return Seconds(start);
  }

 private:
  sqlite3* db_ = nullptr;
};

// Seconds of the same save with journaling off.
double CacheSaveAllUnjournaled(const Workload& w, const std::wstring& folder) {
  FilePageCache::SetJournaling(false);
  const double t = CacheSaveAll(w, folder);
  FilePageCache::SetJournaling(true);
  return t;
}

void BM_EffectCacheSaveAndSearch(benchmark::State& state) {
  const Workload& w = TheWorkload();
  double ours = 0, compress = 0, sqliteSave = 0, search = 0, uncompressTime = 0, sqliteSearch = 0, open = 0;
  double unjournaled = 0, syncs = 0, saves = 0;
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
    ours = CacheSaveAll(w, dir.Path().wstring());
    syncs = static_cast<double>(FileFaults::Calls(FileCall::kSync));
    saves = static_cast<double>(FileFaults::Calls(FileCall::kRemove));  // each save deletes its journal
    FileFaults::Reset();
    search = CacheSearchAll(w, dir.Path().wstring(), &open);
    uncompressTime = UncompressAll(w, compressed);
    {
      SqliteStore store((dir.Path() / "effects.sqlite").string());
      sqliteSave = store.SaveAll(w);
    }
    {
      SqliteStore store((dir.Path() / "effects.sqlite").string());
      sqliteSearch = store.SearchAll(w);
    }
    state.SetIterationTime(ours);
  }
  const double mib = MiB(w.totalBytes);
  state.counters["effects_MiB"] = mib;
  state.counters["compression_ratio"] = static_cast<double>(w.totalBytes) / static_cast<double>(compressedBytes);
  state.counters["save_MiBps"] = mib / ours;
  state.counters["save_vs_compress2"] = compress / ours;
  state.counters["save_vs_sqlite"] = sqliteSave / ours;
  state.counters["save_vs_unjournaled"] = unjournaled / ours;
  state.counters["saves"] = saves;
  state.counters["syncs_per_save"] = saves > 0 ? syncs / saves : 0;
  state.counters["search_MiBps"] = mib / search;
  state.counters["search_vs_uncompress"] = uncompressTime / search;
  state.counters["search_vs_sqlite"] = sqliteSearch / search;
  state.counters["open_ms"] = open * 1e3;
}
BENCHMARK(BM_EffectCacheSaveAndSearch)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace Tovrel

BENCHMARK_MAIN();
