// The C interface's file package: a package handle and the stream handles
// opened from it share one PackageState, whose lock each of their calls
// holds (a package and its streams are used by one thread at a time); the
// state holds the package, so that the file stays open until the package
// handle and every stream handle are closed.

#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "capi/CApiCall.h"
#include "capi/HandleRegistry.h"
#include "package/PagedFilePackage.h"
#include "platform/PlatformFile.h"
#include "tovrel/tovrel_c.h"

namespace Tovrel {
namespace {

// What a package handle and its streams share.
struct PackageState {
  std::mutex lock;                    // held by every call on the package or one of its streams
  RefPtr<PagedFilePackage> package;   // never null
  std::set<std::uint64_t> openIds;    // streams that have a handle; each at most one
};

}  // namespace
}  // namespace Tovrel

struct tovrel_package {
  std::shared_ptr<Tovrel::PackageState> state;
};

struct tovrel_stream {
  std::shared_ptr<Tovrel::PackageState> state;
  RefPtr<Tovrel::IDataStream> stream;  // null once closed
  std::uint64_t id;
};

namespace Tovrel {
namespace {

using Packages = HandleRegistry<tovrel_package>;
using Streams = HandleRegistry<tovrel_stream>;

tovrel_status CheckOptions(const tovrel_package_options* options, PagedFilePackageConfig* config) {
  config->cachePageCount = 64;
  config->streamLimit = 65535;
  if (options == nullptr) return TOVREL_OK;
  if (options->struct_size != sizeof(tovrel_package_options)) return TOVREL_INVALID_ARGUMENT;
  if (options->cache_page_count == 0 || options->stream_limit == 0) return TOVREL_INVALID_ARGUMENT;
  config->cachePageCount = options->cache_page_count;
  config->streamLimit = options->stream_limit;
  return TOVREL_OK;
}

enum class Start { kCreate, kOpen, kOpenReadOnly };

tovrel_status StartPackage(const char* path, const tovrel_package_options* options, tovrel_package** out,
                           Start start) {
  if (out == nullptr) return TOVREL_INVALID_ARGUMENT;
  PagedFilePackageConfig config{};
  tovrel_status status = CheckOptions(options, &config);
  std::wstring wide;
  if (status == TOVREL_OK) status = CApiCall::WidePath(path, &wide);
  if (status != TOVREL_OK) return status;
  config.filePath = wide.c_str();
  RefPtr<PagedFilePackage> package;
  if (start == Start::kCreate) {
    package = RefPtr<PagedFilePackage>(new PagedFilePackage(config));
    if (!package->Create()) return TOVREL_IO_ERROR;
  } else {
    // Opening never makes a file where there was none.
    if (!PlatformFile::Exists(wide.c_str())) return TOVREL_NOT_FOUND;
    PagedFilePackage::LoadFailure why = PagedFilePackage::LoadFailure::kNone;
    package = start == Start::kOpen ? PagedFilePackage::Open(config, &why) : PagedFilePackage::OpenReadOnly(config, &why);
    if (!package) return why == PagedFilePackage::LoadFailure::kCorrupt ? TOVREL_DAMAGED : TOVREL_IO_ERROR;
  }
  auto state = std::make_shared<PackageState>();
  state->package = package;
  auto handle = std::make_shared<tovrel_package>();
  handle->state = std::move(state);
  *out = Packages::Instance().Add(std::move(handle));
  return TOVREL_OK;
}

// Runs `body` on a live package's state under its lock.
template <class Body>
tovrel_status OnPackage(tovrel_package* handle, Body&& body) {
  return CApiCall::Guard([&] {
    const std::shared_ptr<tovrel_package> package = Packages::Instance().Find(handle);
    if (!package) return TOVREL_INVALID_HANDLE;
    PackageState& state = *package->state;
    std::lock_guard<std::mutex> guard(state.lock);
    return body(state);
  });
}

// Runs `body` on a live stream under its package's lock.
template <class Body>
tovrel_status OnStream(tovrel_stream* handle, Body&& body) {
  return CApiCall::Guard([&] {
    const std::shared_ptr<tovrel_stream> stream = Streams::Instance().Find(handle);
    if (!stream) return TOVREL_INVALID_HANDLE;
    std::lock_guard<std::mutex> guard(stream->state->lock);
    if (!stream->stream) return TOVREL_INVALID_HANDLE;
    return body(*stream->state, *stream->stream);
  });
}

tovrel_status Writable(const PackageState& state) {
  return state.package->IsReadOnly() ? TOVREL_READ_ONLY : TOVREL_OK;
}

// Whether the package holds the stream: a binary search of its
// identifiers, which it gives in ascending order.
bool HasStream(const PagedFilePackage& package, std::uint64_t id) {
  std::uint64_t low = 0;
  std::uint64_t high = package.GetNumberOfStreams();
  while (low < high) {
    const std::uint64_t middle = low + (high - low) / 2;
    const std::uint64_t found = package.GetStreamIdentifier(middle);
    if (found == id) return true;
    if (found < id) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return false;
}

}  // namespace
}  // namespace Tovrel

using Tovrel::CApiCall;
using Tovrel::PackageState;

extern "C" {

tovrel_status tovrel_package_options_init(tovrel_package_options* options) {
  if (options == nullptr) return TOVREL_INVALID_ARGUMENT;
  options->struct_size = sizeof(tovrel_package_options);
  options->cache_page_count = 64;
  options->stream_limit = 65535;
  return TOVREL_OK;
}

tovrel_status tovrel_package_create(const char* path, const tovrel_package_options* options,
                                    tovrel_package** package) {
  return CApiCall::Guard([&] { return Tovrel::StartPackage(path, options, package, Tovrel::Start::kCreate); });
}

tovrel_status tovrel_package_open(const char* path, const tovrel_package_options* options, tovrel_package** package) {
  return CApiCall::Guard([&] { return Tovrel::StartPackage(path, options, package, Tovrel::Start::kOpen); });
}

tovrel_status tovrel_package_open_read_only(const char* path, const tovrel_package_options* options,
                                            tovrel_package** package) {
  return CApiCall::Guard([&] { return Tovrel::StartPackage(path, options, package, Tovrel::Start::kOpenReadOnly); });
}

tovrel_status tovrel_package_close(tovrel_package* package) {
  return CApiCall::Guard([&] {
    const std::shared_ptr<tovrel_package> closing = Tovrel::Packages::Instance().Remove(package);
    if (!closing) return TOVREL_INVALID_HANDLE;
    PackageState& state = *closing->state;
    std::lock_guard<std::mutex> guard(state.lock);
    if (state.package->IsReadOnly()) return TOVREL_OK;
    return state.package->Save() ? TOVREL_OK : TOVREL_IO_ERROR;
  });
}

tovrel_status tovrel_package_save(tovrel_package* package) {
  return Tovrel::OnPackage(package, [&](PackageState& state) {
    const tovrel_status status = Tovrel::Writable(state);
    if (status != TOVREL_OK) return status;
    return state.package->Save() ? TOVREL_OK : TOVREL_IO_ERROR;
  });
}

tovrel_status tovrel_package_stream_count(tovrel_package* package, uint64_t* count) {
  return Tovrel::OnPackage(package, [&](PackageState& state) {
    if (count == nullptr) return TOVREL_INVALID_ARGUMENT;
    *count = state.package->GetNumberOfStreams();
    return TOVREL_OK;
  });
}

tovrel_status tovrel_package_stream_id(tovrel_package* package, uint64_t index, uint64_t* id) {
  return Tovrel::OnPackage(package, [&](PackageState& state) {
    if (id == nullptr) return TOVREL_INVALID_ARGUMENT;
    if (index >= state.package->GetNumberOfStreams()) return TOVREL_NOT_FOUND;
    *id = state.package->GetStreamIdentifier(index);
    return TOVREL_OK;
  });
}

tovrel_status tovrel_package_stream_create(tovrel_package* package, uint64_t size, uint64_t* id) {
  return Tovrel::OnPackage(package, [&](PackageState& state) {
    if (id == nullptr || size > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) {
      return TOVREL_INVALID_ARGUMENT;
    }
    const tovrel_status status = Tovrel::Writable(state);
    if (status != TOVREL_OK) return status;
    const std::uint64_t made = state.package->CreateStream(size);
    if (made == Tovrel::IDataStreamSet::kNoStream) return TOVREL_REFUSED;
    *id = made;
    return TOVREL_OK;
  });
}

tovrel_status tovrel_package_stream_remove(tovrel_package* package, uint64_t id) {
  return Tovrel::OnPackage(package, [&](PackageState& state) {
    tovrel_status status = Tovrel::Writable(state);
    if (status != TOVREL_OK) return status;
    if (!Tovrel::HasStream(*state.package, id)) return TOVREL_NOT_FOUND;
    if (state.openIds.count(id) != 0) return TOVREL_BUSY;
    return state.package->RemoveStream(id) ? TOVREL_OK : TOVREL_BUSY;
  });
}

tovrel_status tovrel_package_stream_open(tovrel_package* package, uint64_t id, tovrel_stream** stream) {
  const std::shared_ptr<tovrel_package> owner = Tovrel::Packages::Instance().Find(package);
  return Tovrel::OnPackage(package, [&](PackageState& state) {
    if (stream == nullptr) return TOVREL_INVALID_ARGUMENT;
    if (state.openIds.count(id) != 0) return TOVREL_BUSY;
    RefPtr<Tovrel::IDataStream> opened = state.package->OpenStream(id);
    if (!opened) return TOVREL_NOT_FOUND;
    auto handle = std::make_shared<tovrel_stream>();
    handle->state = owner->state;
    handle->stream = opened;
    handle->id = id;
    state.openIds.insert(id);
    *stream = Tovrel::Streams::Instance().Add(std::move(handle));
    return TOVREL_OK;
  });
}

tovrel_status tovrel_package_user_data_size(tovrel_package* package, uint64_t* size) {
  return Tovrel::OnPackage(package, [&](PackageState& state) {
    if (size == nullptr) return TOVREL_INVALID_ARGUMENT;
    *size = state.package->GetUserDataSize();
    return TOVREL_OK;
  });
}

tovrel_status tovrel_package_user_data_get(tovrel_package* package, void* buffer, size_t capacity, size_t* size) {
  return Tovrel::OnPackage(package, [&](PackageState& state) {
    if (size == nullptr || !CApiCall::BufferOk(buffer, capacity)) return TOVREL_INVALID_ARGUMENT;
    const Tovrel::IDataStreamSet& set = *state.package;
    const std::uint64_t have = set.GetUserDataSize();
    *size = static_cast<size_t>(have);
    if (capacity < have) return TOVREL_BUFFER_TOO_SMALL;
    if (have != 0) std::memcpy(buffer, set.GetUserData(), static_cast<size_t>(have));
    return TOVREL_OK;
  });
}

tovrel_status tovrel_package_user_data_set(tovrel_package* package, const void* data, size_t size) {
  return Tovrel::OnPackage(package, [&](PackageState& state) {
    if (!CApiCall::BufferOk(data, size)) return TOVREL_INVALID_ARGUMENT;
    const tovrel_status status = Tovrel::Writable(state);
    if (status != TOVREL_OK) return status;
    if (!state.package->SetUserDataSize(size)) return TOVREL_REFUSED;
    if (size != 0) std::memcpy(state.package->GetUserData(), data, size);
    return TOVREL_OK;
  });
}

tovrel_status tovrel_stream_close(tovrel_stream* stream) {
  return CApiCall::Guard([&] {
    const std::shared_ptr<tovrel_stream> closing = Tovrel::Streams::Instance().Remove(stream);
    if (!closing) return TOVREL_INVALID_HANDLE;
    std::lock_guard<std::mutex> guard(closing->state->lock);
    closing->state->openIds.erase(closing->id);
    closing->stream.Reset();
    return TOVREL_OK;
  });
}

tovrel_status tovrel_stream_read(tovrel_stream* stream, void* buffer, uint64_t count, uint64_t* done) {
  return Tovrel::OnStream(stream, [&](const PackageState&, Tovrel::IDataStream& open) {
    if (done == nullptr || !CApiCall::BufferOk(buffer, count)) return TOVREL_INVALID_ARGUMENT;
    *done = count == 0 ? 0 : open.Read(buffer, count);
    return TOVREL_OK;
  });
}

tovrel_status tovrel_stream_write(tovrel_stream* stream, const void* data, uint64_t count, uint64_t* done) {
  return Tovrel::OnStream(stream, [&](const PackageState& state, Tovrel::IDataStream& open) {
    if (done == nullptr || !CApiCall::BufferOk(data, count)) return TOVREL_INVALID_ARGUMENT;
    const tovrel_status status = Tovrel::Writable(state);
    if (status != TOVREL_OK) return status;
    *done = count == 0 ? 0 : open.Write(data, count);
    return TOVREL_OK;
  });
}

tovrel_status tovrel_stream_seek(tovrel_stream* stream, int origin, int32_t offset) {
  return Tovrel::OnStream(stream, [&](const PackageState&, Tovrel::IDataStream& open) {
    if (origin < 0 || origin > 2) return TOVREL_INVALID_ARGUMENT;
    return open.Seek(static_cast<std::uint32_t>(origin), offset) ? TOVREL_OK : TOVREL_INVALID_ARGUMENT;
  });
}

tovrel_status tovrel_stream_position(tovrel_stream* stream, uint64_t* position) {
  return Tovrel::OnStream(stream, [&](const PackageState&, Tovrel::IDataStream& open) {
    if (position == nullptr) return TOVREL_INVALID_ARGUMENT;
    *position = open.GetPosition();
    return TOVREL_OK;
  });
}

tovrel_status tovrel_stream_size(tovrel_stream* stream, uint64_t* size) {
  return Tovrel::OnStream(stream, [&](const PackageState&, Tovrel::IDataStream& open) {
    if (size == nullptr) return TOVREL_INVALID_ARGUMENT;
    *size = open.GetSize();
    return TOVREL_OK;
  });
}

}  // extern "C"
