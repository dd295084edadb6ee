// Fuzz target: the input bytes are a program of calls to the C interface
// (tovrel/tovrel_c.h): effect caches, maintenance by folder, packages and
// streams, with arguments drawn from the input: null pointers, zero and
// huge sizes, names that are not UTF-8, handles that are null, closed or
// never made. Every call must answer one of the documented statuses; any
// crash, leak, sanitizer report or other value is a finding. At the end
// every handle still open is closed. Files live in an in-memory file
// system: no input touches the disk.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "FuzzFiles.h"
#include "platform/MemoryFileSystem.h"
#include "platform/PlatformFile.h"
#include "platform/WideText.h"
#include "tovrel/tovrel_c.h"

namespace {

using TovrelFuzz::Files;

// Folder and file names of this process (named mutexes are the system's).
const std::string& Base() {
  static const std::string base = "capifuzz-" + std::to_string(std::random_device{}());
  return base;
}

// Reads the input as a stream of choices; past its end, zeros.
class Choices {
 public:
  Choices(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  bool More() const { return at_ < size_; }
  std::uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
  std::uint64_t Number() {
    switch (Byte() % 6) {
      case 0: return 0;
      case 1: return Byte();
      case 2: return static_cast<std::uint64_t>(Byte()) << 8 | Byte();
      case 3: return UINT64_MAX;
      case 4: return 1048577;
      default: return static_cast<std::uint64_t>(Byte()) << 16 | static_cast<std::uint64_t>(Byte()) << 8;
    }
  }
  // A run of the input's bytes as text (names, paths).
  std::string Text() {
    std::string text;
    const std::size_t length = Byte() % 12;
    for (std::size_t i = 0; i < length; ++i) text.push_back(static_cast<char>(Byte()));
    return text;
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
};

// The handles of one input: live ones, closed ones and a stranger's.
struct Handles {
  std::vector<tovrel_effect_cache*> caches;
  std::vector<tovrel_package*> packages;
  std::vector<tovrel_stream*> streams;
};

template <class Handle>
Handle* Pick(Choices& in, const std::vector<Handle*>& handles) {
  static int stranger = 0;
  const std::uint8_t byte = in.Byte();
  if (byte % 8 == 0) return nullptr;
  if (byte % 8 == 1) return reinterpret_cast<Handle*>(&stranger);
  if (handles.empty()) return nullptr;
  return handles[byte % handles.size()];
}

// CAPI_FUZZ_TRACE=1 prints each call and its status (to see how far a
// seed reaches).
bool Tracing() {
  static const bool tracing = std::getenv("CAPI_FUZZ_TRACE") != nullptr;
  return tracing;
}

void Check(tovrel_status status, const char* call) {
  if (Tracing()) std::fprintf(stderr, "%.40s: %s\n", call, tovrel_status_string(status));
  if (status < TOVREL_OK || status >= TOVREL_INTERNAL_ERROR) std::abort();
}
#define Expect(call) Check(call, #call)

std::string Folder(Choices& in) {
  switch (in.Byte() % 5) {
    case 0: return Base() + "-a";
    case 1: return Base() + "-b";
    case 2: return Base() + "-" + in.Text();
    case 3: return std::string();
    default: return Base() + "-a/\xff";
  }
}

// One buffer that every pointer with a size points into: large enough for
// the largest size a call is given with a real pointer.
std::vector<unsigned char>& Buffer() {
  static std::vector<unsigned char> buffer(1048577 + 16, 0x5A);
  return buffer;
}

std::size_t Size(Choices& in) {
  const std::uint64_t n = in.Number();
  return static_cast<std::size_t>(n > 1048577 ? 1048577 : n);
}

void* Pointer(Choices& in) { return in.Byte() % 5 == 0 ? nullptr : Buffer().data(); }

void CacheCall(Choices& in, Handles& h) {
  tovrel_effect_cache* cache = Pick(in, h.caches);
  const std::string name = in.Text();
  const char* namePointer = in.Byte() % 7 == 0 ? nullptr : name.data();
  std::size_t size = 0;
  std::uint64_t a = 0;
  std::uint64_t b = 0;
  void* copy = nullptr;
  switch (in.Byte() % 8) {
    case 0: {
      tovrel_effect_cache_options options;
      Expect(tovrel_effect_cache_options_init(&options));
      options.compression_level = in.Byte() % 11;
      options.background_saving = static_cast<int>(in.Byte() % 4) - 1;
      if (in.Byte() % 9 == 0) options.struct_size = in.Byte();
      tovrel_effect_cache* made = nullptr;
      const std::string folder = Folder(in);
      Expect(tovrel_effect_cache_open(folder.empty() ? nullptr : folder.c_str(), in.Byte() % 2 ? &options : nullptr,
                                      &made));
      if (made != nullptr) h.caches.push_back(made);
      break;
    }
    case 1: Expect(tovrel_effect_cache_close(cache)); break;
    case 2: Expect(tovrel_effect_cache_put(cache, namePointer, name.size(), Pointer(in), Size(in), in.Byte() % 2)); break;
    case 3: Expect(tovrel_effect_cache_get(cache, namePointer, name.size(), Pointer(in), Size(in), in.Byte() % 6 ? &size : nullptr)); break;
    case 4:
      Expect(tovrel_effect_cache_get_alloc(cache, namePointer, name.size(), in.Byte() % 6 ? &copy : nullptr, &size));
      tovrel_free(copy);
      break;
    case 5: Expect(tovrel_effect_cache_save(cache)); break;
    default: Expect(tovrel_effect_cache_counts(cache, in.Byte() % 3 ? &a : nullptr, in.Byte() % 3 ? &b : nullptr)); break;
  }
}

int Visit(void*, const tovrel_effect_info*) { return 0; }
int VisitText(void*, const char*, size_t) { return 0; }

void FolderCall(Choices& in) {
  const std::string folder = Folder(in);
  const char* path = folder.empty() ? nullptr : folder.c_str();
  tovrel_maintenance_result result;
  tovrel_effect_cache_stats stats;
  std::uint64_t a = 0;
  std::uint64_t b = 0;
  const std::string name = in.Text();
  const char* names[2] = {name.data(), in.Byte() % 4 ? "fx" : nullptr};
  const size_t sizes[2] = {name.size(), 2};
  switch (in.Byte() % 7) {
    case 0: Expect(tovrel_effect_cache_stats_read(path, in.Byte() % 5 ? &stats : nullptr)); break;
    case 1: Expect(tovrel_effect_cache_list(path, in.Byte() % 5 ? &Visit : nullptr, nullptr)); break;
    case 2: Expect(tovrel_effect_cache_verify(path, in.Byte() % 2 ? &VisitText : nullptr, nullptr, in.Byte() % 5 ? &a : nullptr)); break;
    case 3: Expect(tovrel_effect_cache_trim(path, in.Number(), static_cast<std::int64_t>(in.Byte()) - 3, in.Byte() % 2, in.Byte() % 3 ? &result : nullptr)); break;
    case 4: Expect(tovrel_effect_cache_clear(path, in.Byte() % 2, in.Byte() % 2, &result)); break;
    case 5: Expect(tovrel_effect_cache_remove(path, in.Byte() % 5 ? names : nullptr, in.Byte() % 5 ? sizes : nullptr, in.Byte() % 3, in.Byte() % 2, &result)); break;
    default: Expect(tovrel_effect_cache_compact(path, &a, in.Byte() % 2 ? &b : nullptr)); break;
  }
}

void PackageCall(Choices& in, Handles& h) {
  tovrel_package* package = Pick(in, h.packages);
  std::uint64_t value = 0;
  std::size_t size = 0;
  switch (in.Byte() % 9) {
    case 0:
    case 1: {
      tovrel_package_options options;
      Expect(tovrel_package_options_init(&options));
      options.cache_page_count = in.Byte() % 4;
      options.stream_limit = in.Byte() % 6;
      const std::string file = Folder(in) + ".pkg";
      tovrel_package* made = nullptr;
      const tovrel_package_options* chosen = in.Byte() % 2 ? &options : nullptr;
      switch (in.Byte() % 3) {
        case 0: Expect(tovrel_package_create(file.c_str(), chosen, &made)); break;
        case 1: Expect(tovrel_package_open(file.c_str(), chosen, &made)); break;
        default: Expect(tovrel_package_open_read_only(file.c_str(), chosen, &made)); break;
      }
      if (made != nullptr) h.packages.push_back(made);
      break;
    }
    case 2: Expect(tovrel_package_close(package)); break;
    case 3: Expect(tovrel_package_save(package)); break;
    case 4: Expect(tovrel_package_stream_create(package, in.Number(), in.Byte() % 5 ? &value : nullptr)); break;
    case 5: Expect(tovrel_package_stream_remove(package, in.Byte() % 4)); break;
    case 6: {
      tovrel_stream* stream = nullptr;
      Expect(tovrel_package_stream_open(package, in.Byte() % 4, in.Byte() % 5 ? &stream : nullptr));
      if (stream != nullptr) h.streams.push_back(stream);
      break;
    }
    case 7: Expect(tovrel_package_user_data_set(package, Pointer(in), Size(in) % 70000)); break;
    default:
      Expect(tovrel_package_user_data_get(package, Pointer(in), Size(in), in.Byte() % 5 ? &size : nullptr));
      Expect(tovrel_package_user_data_size(package, in.Byte() % 5 ? &value : nullptr));
      Expect(tovrel_package_stream_count(package, &value));
      Expect(tovrel_package_stream_id(package, in.Byte(), &value));
      break;
  }
}

void StreamCall(Choices& in, Handles& h) {
  tovrel_stream* stream = Pick(in, h.streams);
  std::uint64_t value = 0;
  switch (in.Byte() % 5) {
    case 0: Expect(tovrel_stream_close(stream)); break;
    case 1: Expect(tovrel_stream_read(stream, Pointer(in), Size(in), in.Byte() % 5 ? &value : nullptr)); break;
    case 2: Expect(tovrel_stream_write(stream, Pointer(in), Size(in), in.Byte() % 5 ? &value : nullptr)); break;
    case 3: Expect(tovrel_stream_seek(stream, static_cast<int>(in.Byte() % 5) - 1, static_cast<std::int32_t>(in.Number()))); break;
    default:
      Expect(tovrel_stream_position(stream, in.Byte() % 5 ? &value : nullptr));
      Expect(tovrel_stream_size(stream, &value));
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Files();
  Choices in(data, size);
  Handles handles;
  for (int calls = 0; in.More() && calls < 64; ++calls) {
    switch (in.Byte() % 4) {
      case 0: CacheCall(in, handles); break;
      case 1: FolderCall(in); break;
      case 2: PackageCall(in, handles); break;
      default: StreamCall(in, handles); break;
    }
  }
  for (tovrel_stream* stream : handles.streams) tovrel_stream_close(stream);
  for (tovrel_package* package : handles.packages) tovrel_package_close(package);
  for (tovrel_effect_cache* cache : handles.caches) tovrel_effect_cache_close(cache);
  // Nothing of this input outlives it.
  for (const std::wstring& file : Files().ListFiles()) Files().Remove(file.c_str());
  return 0;
}
