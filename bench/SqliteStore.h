// SqliteStore: the effect cache benchmark's SQLite peer: one database file
// with one table, name (the effect's UTF-8 name, primary key) -> size and
// zlib-compressed bytes. Journaled with WAL and SQLite's default
// `synchronous`, which is FULL in Debian's build (SQLITE_DEFAULT_SYNCHRONOUS
// and SQLITE_DEFAULT_WAL_SYNCHRONOUS are both 2): every COMMIT appends to the
// WAL and syncs it before it returns, so a committed batch survives a power
// cut; checkpoints copy the WAL into the database file and sync it, the last
// one when the connection closes. Owns its connection: opened on the path by
// the constructor, closed by the destructor. One thread at a time.
#ifndef TOVREL_BENCH_SQLITESTORE_H
#define TOVREL_BENCH_SQLITESTORE_H

#include <sqlite3.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "EffectWorkload.h"

namespace Tovrel {
namespace Bench {

class SqliteStore {
 public:
  explicit SqliteStore(const std::string& path) {
    if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) std::abort();
    sqlite3_exec(db_, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
    sqlite3_exec(db_, "CREATE TABLE IF NOT EXISTS effects (name TEXT PRIMARY KEY, size INTEGER, data BLOB)",
                 nullptr, nullptr, nullptr);
  }
  ~SqliteStore() { sqlite3_close(db_); }
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  // Compresses and inserts every effect, one transaction per
  // EffectWorkload::kBatchBytes of effects.
  void SaveAll(const EffectWorkload& w) {
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db_, "INSERT OR REPLACE INTO effects VALUES (?, ?, ?)", -1, &insert, nullptr);
    std::vector<unsigned char> buffer;
    std::size_t batch = 0;
    sqlite3_exec(db_, "BEGIN", nullptr, nullptr, nullptr);
    for (std::size_t i = 0; i < w.effects.size(); ++i) {
      EffectWorkload::Compress(w.effects[i], buffer, 0);
      sqlite3_bind_text(insert, 1, w.utf8Names[i].c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_int64(insert, 2, static_cast<sqlite3_int64>(w.effects[i].size()));
      sqlite3_bind_blob(insert, 3, buffer.data(), static_cast<int>(buffer.size()), SQLITE_TRANSIENT);
      if (sqlite3_step(insert) != SQLITE_DONE) std::abort();
      sqlite3_reset(insert);
      batch += w.effects[i].size();
      if (batch >= EffectWorkload::kBatchBytes) {
        sqlite3_exec(db_, "COMMIT; BEGIN", nullptr, nullptr, nullptr);
        batch = 0;
      }
    }
    if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) std::abort();
    sqlite3_finalize(insert);
  }

  // Looks up every name and uncompresses its bytes into one buffer (with
  // libdeflate when given its decompressor).
  void SearchAll(const EffectWorkload& w, libdeflate_decompressor* libdeflate = nullptr) {
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(db_, "SELECT size, data FROM effects WHERE name = ?", -1, &select, nullptr);
    std::vector<unsigned char> buffer(EffectWorkload::kMaxEffectBytes);
    for (std::size_t i = 0; i < w.effects.size(); ++i) {
      sqlite3_bind_text(select, 1, w.utf8Names[i].c_str(), -1, SQLITE_STATIC);
      if (sqlite3_step(select) != SQLITE_ROW) std::abort();
      const auto size = static_cast<std::size_t>(sqlite3_column_int64(select, 0));
      if (size > buffer.size() ||
          !EffectWorkload::Decode(static_cast<const unsigned char*>(sqlite3_column_blob(select, 1)),
                                  static_cast<std::size_t>(sqlite3_column_bytes(select, 1)), size, buffer.data(),
                                  libdeflate)) {
        std::abort();
      }
      sqlite3_reset(select);
    }
    sqlite3_finalize(select);
  }

 private:
  sqlite3* db_ = nullptr;
};

}  // namespace Bench
}  // namespace Tovrel

#endif
