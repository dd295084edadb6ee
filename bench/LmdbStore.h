// LmdbStore: the effect cache benchmark's LMDB peer: an environment in a
// folder of its own whose unnamed database maps each effect's UTF-8 name to
// its value as EffectWorkload::Pack makes it. Opened with LMDB's default
// flags (no MDB_NOSYNC, MDB_NOMETASYNC, MDB_WRITEMAP or MDB_MAPASYNC): every
// commit writes its pages and syncs them, then writes the meta page and
// syncs it, before mdb_txn_commit returns, so a committed batch survives a
// power cut. The map size is raised from LMDB's 10 MiB to 1 GiB so that the
// store fits; it has no bearing on durability. Reads come straight from the
// memory map, without a copy. Owns its environment: opened on the folder
// (which must exist) by the constructor, closed by the destructor. One
// thread at a time.
#ifndef TOVREL_BENCH_LMDBSTORE_H
#define TOVREL_BENCH_LMDBSTORE_H

#include <lmdb.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "EffectWorkload.h"

namespace Tovrel {
namespace Bench {

class LmdbStore {
 public:
  explicit LmdbStore(const std::string& folder) {
    Check(mdb_env_create(&env_), "mdb_env_create");
    Check(mdb_env_set_mapsize(env_, std::size_t{1} << 30), "mdb_env_set_mapsize");
    Check(mdb_env_open(env_, folder.c_str(), 0, 0664), "mdb_env_open");
    MDB_txn* txn = nullptr;
    Check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn), "mdb_txn_begin");
    Check(mdb_dbi_open(txn, nullptr, 0, &dbi_), "mdb_dbi_open");
    Check(mdb_txn_commit(txn), "mdb_txn_commit");
  }
  ~LmdbStore() { mdb_env_close(env_); }
  LmdbStore(const LmdbStore&) = delete;
  LmdbStore& operator=(const LmdbStore&) = delete;

  // Compresses and puts every effect, one write transaction per
  // EffectWorkload::kBatchBytes of effects.
  void SaveAll(const EffectWorkload& w) {
    std::vector<unsigned char> value;
    MDB_txn* txn = nullptr;
    std::size_t batch = 0;
    for (std::size_t i = 0; i < w.effects.size(); ++i) {
      if (!txn) Check(mdb_txn_begin(env_, nullptr, 0, &txn), "mdb_txn_begin");
      w.Pack(i, value);
      MDB_val key{w.utf8Names[i].size(), const_cast<char*>(w.utf8Names[i].data())};
      MDB_val data{value.size(), value.data()};
      Check(mdb_put(txn, dbi_, &key, &data, 0), "mdb_put");
      batch += w.effects[i].size();
      if (batch >= EffectWorkload::kBatchBytes || i + 1 == w.effects.size()) {
        Check(mdb_txn_commit(txn), "mdb_txn_commit");
        txn = nullptr;
        batch = 0;
      }
    }
  }

  // Looks up every name in one read transaction and uncompresses its bytes
  // from the map into one buffer (with libdeflate when given its
  // decompressor).
  void SearchAll(const EffectWorkload& w, libdeflate_decompressor* libdeflate = nullptr) {
    std::vector<unsigned char> buffer(EffectWorkload::kMaxEffectBytes);
    MDB_txn* txn = nullptr;
    Check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn), "mdb_txn_begin");
    for (std::size_t i = 0; i < w.effects.size(); ++i) {
      MDB_val key{w.utf8Names[i].size(), const_cast<char*>(w.utf8Names[i].data())};
      MDB_val data{};
      Check(mdb_get(txn, dbi_, &key, &data), "mdb_get");
      if (!EffectWorkload::Unpack(static_cast<const unsigned char*>(data.mv_data), data.mv_size, buffer.data(),
                                  libdeflate)) {
        std::abort();
      }
    }
    mdb_txn_abort(txn);
  }

 private:
  static void Check(int rc, const char* call) {
    if (rc == MDB_SUCCESS) return;
    std::fprintf(stderr, "%s: %s\n", call, mdb_strerror(rc));
    std::abort();
  }

  MDB_env* env_ = nullptr;
  MDB_dbi dbi_ = 0;
};

}  // namespace Bench
}  // namespace Tovrel

#endif
