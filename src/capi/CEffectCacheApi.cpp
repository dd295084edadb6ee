// The C interface's effect cache: a handle is a tovrel_effect_cache that
// owns an EffectCacheImpl (the object EffectCacheSystem wraps for C++
// hosts); the maintenance calls go to EffectCacheMaintenance and
// EffectCacheVerifier by folder, as the tool's do.

#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "capi/CApiCall.h"
#include "capi/HandleRegistry.h"
#include "effectcache/CacheFileNames.h"
#include "effectcache/CacheTimeStamp.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EffectCacheMaintenance.h"
#include "effectcache/EffectCacheReader.h"
#include "effectcache/EffectCacheStats.h"
#include "effectcache/EffectCacheVerifier.h"
#include "platform/PlatformFile.h"
#include "tovrel/tovrel_c.h"

// One open cache. Owned by the registry (and by calls in progress).
struct tovrel_effect_cache {
  explicit tovrel_effect_cache(std::unique_ptr<Tovrel::EffectCacheImpl> made) : impl(std::move(made)) {}
  std::unique_ptr<Tovrel::EffectCacheImpl> impl;  // never null
};

namespace Tovrel {
namespace {

using Registry = HandleRegistry<tovrel_effect_cache>;

tovrel_status StatusOfUnkept(const EffectCacheImpl& impl) {
  if (impl.IsReadOnly()) return TOVREL_READ_ONLY;
  return impl.IsEnabled() ? TOVREL_REFUSED : TOVREL_UNUSABLE;
}

tovrel_status CheckOptions(const tovrel_effect_cache_options& options) {
  if (options.struct_size != sizeof(tovrel_effect_cache_options)) return TOVREL_INVALID_ARGUMENT;
  if (options.compression_level < 0 || options.compression_level > 9) return TOVREL_INVALID_ARGUMENT;
  if (options.background_saving < -1 || options.background_saving > 1) return TOVREL_INVALID_ARGUMENT;
  return TOVREL_OK;
}

// The folder of a maintenance call, which must hold a cache file: no
// operation makes a cache where there was none.
tovrel_status CacheFolder(const char* folder, WStr* wide) {
  std::wstring path;
  const tovrel_status status = CApiCall::WidePath(folder, &path);
  if (status != TOVREL_OK) return status;
  *wide = WStr(path);
  const WStr file = CacheFileNames::CacheFilePathFor(*wide);
  if (file.isNull() || !PlatformFile::Exists(file.data())) return TOVREL_NOT_FOUND;
  return TOVREL_OK;
}

void Fill(const EffectCacheMaintenance::Result& from, tovrel_maintenance_result* to) {
  to->removed_effects = from.removedEffects;
  to->removed_bytes = from.removedBytes;
  to->kept_effects = from.keptEffects;
  to->kept_bytes = from.keptBytes;
  to->names_not_found = from.notFound.size();
}

tovrel_status Finish(const EffectCacheMaintenance::Result& result, tovrel_maintenance_result* out) {
  if (result.damaged) return TOVREL_DAMAGED;
  if (!result.ok) return TOVREL_UNUSABLE;
  if (out != nullptr) Fill(result, out);
  return TOVREL_OK;
}

tovrel_status OfReader(const EffectCacheReader& reader) {
  switch (reader.Why()) {
    case EffectCacheReader::Failure::kNone: return TOVREL_OK;
    case EffectCacheReader::Failure::kNoFile: return TOVREL_NOT_FOUND;
    case EffectCacheReader::Failure::kNotACache: return TOVREL_DAMAGED;
    case EffectCacheReader::Failure::kUnreadable: return TOVREL_IO_ERROR;
  }
  return TOVREL_INTERNAL_ERROR;
}

// Runs `body` with the folder's file read as a cache, under its mutex.
template <class Body>
tovrel_status WithReader(const char* folder, Body&& body) {
  std::wstring path;
  const tovrel_status status = CApiCall::WidePath(folder, &path);
  if (status != TOVREL_OK) return status;
  EffectCacheReader reader{WStr(path)};
  if (!reader.Ok()) return OfReader(reader);
  return body(reader);
}

// Finds the effect into `data`.
tovrel_status Search(tovrel_effect_cache* handle, const char* name, std::size_t nameSize, Tab<unsigned char>& data) {
  const std::shared_ptr<tovrel_effect_cache> cache = Registry::Instance().Find(handle);
  if (!cache) return TOVREL_INVALID_HANDLE;
  std::wstring wide;
  const tovrel_status status = CApiCall::WideName(name, nameSize, &wide);
  if (status != TOVREL_OK) return status;
  if (!cache->impl->IsEnabled()) return TOVREL_UNUSABLE;
  return cache->impl->SearchCachedEffects(WStr(wide), data) ? TOVREL_OK : TOVREL_NOT_FOUND;
}

}  // namespace
}  // namespace Tovrel

using Tovrel::CApiCall;

extern "C" {

tovrel_status tovrel_effect_cache_options_init(tovrel_effect_cache_options* options) {
  if (options == nullptr) return TOVREL_INVALID_ARGUMENT;
  options->struct_size = sizeof(tovrel_effect_cache_options);
  options->compression_level = Tovrel::EffectCacheImpl::kHostCompressionLevel;
  options->background_saving = -1;
  options->remote_store = nullptr;
  return TOVREL_OK;
}

tovrel_status tovrel_effect_cache_open(const char* folder, const tovrel_effect_cache_options* options,
                                       tovrel_effect_cache** cache) {
  return CApiCall::Guard([&] {
    if (cache == nullptr) return TOVREL_INVALID_ARGUMENT;
    tovrel_effect_cache_options chosen;
    tovrel_effect_cache_options_init(&chosen);
    if (options != nullptr) chosen = *options;
    tovrel_status status = Tovrel::CheckOptions(chosen);
    std::wstring path;
    if (status == TOVREL_OK) status = CApiCall::WidePath(folder, &path);
    std::wstring store;
    if (status == TOVREL_OK && chosen.remote_store != nullptr) status = CApiCall::WidePath(chosen.remote_store, &store);
    if (status != TOVREL_OK) return status;
    std::unique_ptr<Tovrel::EffectCacheImpl> impl(new Tovrel::EffectCacheImpl(WStr(path), chosen.compression_level));
    auto made = std::make_shared<tovrel_effect_cache>(std::move(impl));
    if (chosen.remote_store != nullptr && !made->impl->SetRemoteStore(store.c_str())) return TOVREL_INVALID_ARGUMENT;
    if (chosen.background_saving >= 0) made->impl->SetBackgroundSaving(chosen.background_saving == 1);
    *cache = Tovrel::Registry::Instance().Add(std::move(made));
    return TOVREL_OK;
  });
}

tovrel_status tovrel_effect_cache_close(tovrel_effect_cache* cache) {
  return CApiCall::Guard([&] {
    std::shared_ptr<tovrel_effect_cache> closing = Tovrel::Registry::Instance().Remove(cache);
    if (!closing) return TOVREL_INVALID_HANDLE;
    closing->impl->ForceSaveToFile();
    return closing->impl->IsEnabled() ? TOVREL_OK : TOVREL_UNUSABLE;
  });
}

tovrel_status tovrel_effect_cache_put(tovrel_effect_cache* cache, const char* name, size_t name_size,
                                      const void* data, size_t size, int permanent) {
  return CApiCall::Guard([&] {
    const auto open = Tovrel::Registry::Instance().Find(cache);
    if (!open) return TOVREL_INVALID_HANDLE;
    std::wstring wide;
    const tovrel_status status = CApiCall::WideName(name, name_size, &wide);
    if (status != TOVREL_OK) return status;
    if (data == nullptr || size == 0 || size > Tovrel::EffectCacheImpl::kEffectSizeLimit) {
      return TOVREL_INVALID_ARGUMENT;
    }
    Tovrel::EffectCacheImpl& impl = *open->impl;
    if (impl.CacheCompiledEffect(WStr(wide), static_cast<const unsigned char*>(data), size, permanent != 0)) {
      return TOVREL_OK;
    }
    return Tovrel::StatusOfUnkept(impl);
  });
}

tovrel_status tovrel_effect_cache_get(tovrel_effect_cache* cache, const char* name, size_t name_size, void* buffer,
                                      size_t capacity, size_t* size) {
  return CApiCall::Guard([&] {
    if (size == nullptr || !CApiCall::BufferOk(buffer, capacity)) {
      return Tovrel::Registry::Instance().Find(cache) ? TOVREL_INVALID_ARGUMENT : TOVREL_INVALID_HANDLE;
    }
    Tab<unsigned char> data;
    const tovrel_status status = Tovrel::Search(cache, name, name_size, data);
    if (status != TOVREL_OK) return status;
    const std::size_t found = static_cast<std::size_t>(data.Count());
    *size = found;
    if (capacity < found) return TOVREL_BUFFER_TOO_SMALL;
    if (found != 0) std::memcpy(buffer, data.Addr(0), found);
    return TOVREL_OK;
  });
}

tovrel_status tovrel_effect_cache_get_alloc(tovrel_effect_cache* cache, const char* name, size_t name_size,
                                            void** data, size_t* size) {
  return CApiCall::Guard([&] {
    if (data == nullptr || size == nullptr) {
      return Tovrel::Registry::Instance().Find(cache) ? TOVREL_INVALID_ARGUMENT : TOVREL_INVALID_HANDLE;
    }
    Tab<unsigned char> found;
    const tovrel_status status = Tovrel::Search(cache, name, name_size, found);
    if (status != TOVREL_OK) return status;
    const std::size_t count = static_cast<std::size_t>(found.Count());
    void* copy = std::malloc(count);
    if (copy == nullptr) return TOVREL_NO_MEMORY;
    std::memcpy(copy, found.Addr(0), count);
    *data = copy;
    *size = count;
    return TOVREL_OK;
  });
}

tovrel_status tovrel_effect_cache_save(tovrel_effect_cache* cache) {
  return CApiCall::Guard([&] {
    const auto open = Tovrel::Registry::Instance().Find(cache);
    if (!open) return TOVREL_INVALID_HANDLE;
    if (!open->impl->IsEnabled()) return TOVREL_UNUSABLE;
    open->impl->ForceSaveToFile();
    return open->impl->IsEnabled() ? TOVREL_OK : TOVREL_UNUSABLE;
  });
}

tovrel_status tovrel_effect_cache_counts(tovrel_effect_cache* cache, uint64_t* in_memory, uint64_t* in_file) {
  return CApiCall::Guard([&] {
    const auto open = Tovrel::Registry::Instance().Find(cache);
    if (!open) return TOVREL_INVALID_HANDLE;
    if (in_memory == nullptr && in_file == nullptr) return TOVREL_INVALID_ARGUMENT;
    std::size_t memory = 0;
    std::size_t file = 0;
    open->impl->CountEffects(&memory, &file);
    if (in_memory != nullptr) *in_memory = memory;
    if (in_file != nullptr) *in_file = file;
    return TOVREL_OK;
  });
}

tovrel_status tovrel_effect_cache_stats_read(const char* folder, tovrel_effect_cache_stats* stats) {
  return CApiCall::Guard([&] {
    if (stats == nullptr) return TOVREL_INVALID_ARGUMENT;
    return Tovrel::WithReader(folder, [&](Tovrel::EffectCacheReader& reader) {
      Tovrel::EffectCacheStats counts;
      Tovrel::EffectCacheStats::Read(reader.Package(), counts);
      tovrel_effect_cache_stats out{};
      out.hits = counts.hits;
      out.misses = counts.misses;
      out.cached = counts.cached;
      out.trimmed = counts.trimmed;
      out.remote_hits = counts.remoteHits;
      out.remote_misses = counts.remoteMisses;
      out.remote_errors = counts.remoteErrors;
      out.remote_bytes_in = counts.remoteBytesIn;
      out.remote_bytes_out = counts.remoteBytesOut;
      for (const Tovrel::EffectTable::Entry& entry : reader.Entries()) {
        ++out.effects;
        out.effect_bytes += entry.record.uncompressedSize;
        out.stored_bytes += entry.record.compressedSize;
      }
      out.file_bytes = reader.Package().GetFileLength();
      *stats = out;
      return TOVREL_OK;
    });
  });
}

tovrel_status tovrel_effect_cache_list(const char* folder, tovrel_effect_visitor visitor, void* context) {
  return CApiCall::Guard([&] {
    if (visitor == nullptr) return TOVREL_INVALID_ARGUMENT;
    return Tovrel::WithReader(folder, [&](const Tovrel::EffectCacheReader& reader) {
      for (const Tovrel::EffectTable::Entry& entry : reader.Entries()) {
        tovrel_effect_info info{};
        info.name = entry.name.data();
        info.name_size = entry.name.size();
        info.size = entry.record.uncompressedSize;
        info.stored_size = entry.record.compressedSize;
        info.permanent = entry.record.permanent != 0 ? 1 : 0;
        info.last_used = entry.record.lastUsed.Seconds();
        if (visitor(context, &info) != 0) break;
      }
      return TOVREL_OK;
    });
  });
}

tovrel_status tovrel_effect_cache_trim(const char* folder, uint64_t max_stored_bytes, int64_t max_age_seconds,
                                       int dry_run, tovrel_maintenance_result* result) {
  return CApiCall::Guard([&] {
    if (max_age_seconds < -1) return TOVREL_INVALID_ARGUMENT;
    WStr wide;
    const tovrel_status status = Tovrel::CacheFolder(folder, &wide);
    if (status != TOVREL_OK) return status;
    Tovrel::EffectCacheMaintenance::TrimRule rule;
    rule.bySize = max_stored_bytes != std::numeric_limits<uint64_t>::max();
    rule.maxStoredBytes = max_stored_bytes;
    rule.byAge = max_age_seconds >= 0;
    rule.maxAgeSeconds = max_age_seconds;
    const std::int64_t now = Tovrel::CacheTimeStamp::Now().Seconds();
    return Tovrel::Finish(Tovrel::EffectCacheMaintenance::Trim(wide, rule, now, dry_run != 0), result);
  });
}

tovrel_status tovrel_effect_cache_remove(const char* folder, const char* const* names, const size_t* name_sizes,
                                         size_t count, int dry_run, tovrel_maintenance_result* result) {
  return CApiCall::Guard([&] {
    if (count != 0 && (names == nullptr || name_sizes == nullptr)) return TOVREL_INVALID_ARGUMENT;
    std::vector<std::string> chosen;
    chosen.reserve(count);
    for (size_t i = 0; i < count; ++i) {
      std::wstring unused;
      const tovrel_status status = CApiCall::WideName(names[i], name_sizes[i], &unused);
      if (status != TOVREL_OK) return status;
      chosen.emplace_back(names[i], name_sizes[i]);
    }
    WStr wide;
    const tovrel_status status = Tovrel::CacheFolder(folder, &wide);
    if (status != TOVREL_OK) return status;
    return Tovrel::Finish(Tovrel::EffectCacheMaintenance::Remove(wide, chosen, dry_run != 0), result);
  });
}

tovrel_status tovrel_effect_cache_clear(const char* folder, int keep_permanent, int dry_run,
                                        tovrel_maintenance_result* result) {
  return CApiCall::Guard([&] {
    WStr wide;
    const tovrel_status status = Tovrel::CacheFolder(folder, &wide);
    if (status != TOVREL_OK) return status;
    return Tovrel::Finish(Tovrel::EffectCacheMaintenance::Clear(wide, keep_permanent != 0, dry_run != 0), result);
  });
}

tovrel_status tovrel_effect_cache_compact(const char* folder, uint64_t* file_bytes_before,
                                          uint64_t* file_bytes_after) {
  return CApiCall::Guard([&] {
    WStr wide;
    const tovrel_status status = Tovrel::CacheFolder(folder, &wide);
    if (status != TOVREL_OK) return status;
    const auto compacted = Tovrel::EffectCacheMaintenance::Compact(wide);
    if (compacted.damaged) return TOVREL_DAMAGED;
    if (!compacted.ok) return TOVREL_UNUSABLE;
    if (file_bytes_before != nullptr) *file_bytes_before = compacted.fileBytesBefore;
    if (file_bytes_after != nullptr) *file_bytes_after = compacted.fileBytesAfter;
    return TOVREL_OK;
  });
}

tovrel_status tovrel_effect_cache_verify(const char* folder, tovrel_text_visitor visitor, void* context,
                                         uint64_t* problems) {
  return CApiCall::Guard([&] {
    if (problems == nullptr) return TOVREL_INVALID_ARGUMENT;
    std::wstring path;
    const tovrel_status status = CApiCall::WidePath(folder, &path);
    if (status != TOVREL_OK) return status;
    const auto report = Tovrel::EffectCacheVerifier::VerifyFolder(WStr(path));
    using Outcome = Tovrel::EffectCacheVerifier::Outcome;
    switch (report.outcome) {
      case Outcome::kChecked: break;
      case Outcome::kNoFile: return TOVREL_NOT_FOUND;
      case Outcome::kNotACache: return TOVREL_DAMAGED;
      case Outcome::kUnreadable: return TOVREL_IO_ERROR;
    }
    *problems = report.problems.size();
    if (visitor != nullptr) {
      for (const std::string& problem : report.problems) {
        if (visitor(context, problem.data(), problem.size()) != 0) break;
      }
    }
    return TOVREL_OK;
  });
}

}  // extern "C"
