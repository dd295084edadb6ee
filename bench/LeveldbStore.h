// LeveldbStore: the effect cache benchmark's LevelDB peer: a database in a
// folder of its own mapping each effect's UTF-8 name to its value as
// EffectWorkload::Pack makes it. LevelDB's default options throughout, but
// for create_if_missing: Snappy block compression (which keeps the already
// compressed values as they are), a 4 MiB write buffer, background
// compaction. Writes use the default WriteOptions, whose `sync` is false:
// a write batch reaches the log with write(2) and is not synced, so it
// survives the process dying but may be lost in a power cut. That is
// LevelDB's default durability, weaker than the library's, SQLite's and
// LMDB's, and it is measured as it is. Owns its database: opened on the
// folder by the constructor; the destructor waits for the compaction under
// way, then closes. One thread at a time.
#ifndef TOVREL_BENCH_LEVELDBSTORE_H
#define TOVREL_BENCH_LEVELDBSTORE_H

#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "EffectWorkload.h"

namespace Tovrel {
namespace Bench {

class LeveldbStore {
 public:
  explicit LeveldbStore(const std::string& folder) {
    leveldb::Options options;
    options.create_if_missing = true;
    leveldb::DB* db = nullptr;
    Check(leveldb::DB::Open(options, folder, &db));
    db_.reset(db);
  }
  LeveldbStore(const LeveldbStore&) = delete;
  LeveldbStore& operator=(const LeveldbStore&) = delete;

  // Compresses every effect into a write batch, written whenever it holds
  // EffectWorkload::kBatchBytes of effects.
  void SaveAll(const EffectWorkload& w) {
    std::vector<unsigned char> value;
    leveldb::WriteBatch batch;
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < w.effects.size(); ++i) {
      w.Pack(i, value);
      batch.Put(w.utf8Names[i], leveldb::Slice(reinterpret_cast<const char*>(value.data()), value.size()));
      bytes += w.effects[i].size();
      if (bytes >= EffectWorkload::kBatchBytes || i + 1 == w.effects.size()) {
        Check(db_->Write(leveldb::WriteOptions(), &batch));
        batch.Clear();
        bytes = 0;
      }
    }
  }

  // Looks up every name (a copy of its value) and uncompresses its bytes
  // into one buffer (with libdeflate when given its decompressor).
  void SearchAll(const EffectWorkload& w, libdeflate_decompressor* libdeflate = nullptr) {
    std::vector<unsigned char> buffer(EffectWorkload::kMaxEffectBytes);
    std::string value;
    for (std::size_t i = 0; i < w.effects.size(); ++i) {
      Check(db_->Get(leveldb::ReadOptions(), w.utf8Names[i], &value));
      if (!EffectWorkload::Unpack(reinterpret_cast<const unsigned char*>(value.data()), value.size(),
                                  buffer.data(), libdeflate)) {
        std::abort();
      }
    }
  }

 private:
  static void Check(const leveldb::Status& status) {
    if (status.ok()) return;
    std::fprintf(stderr, "leveldb: %s\n", status.ToString().c_str());
    std::abort();
  }

  std::unique_ptr<leveldb::DB> db_;
};

}  // namespace Bench
}  // namespace Tovrel

#endif
