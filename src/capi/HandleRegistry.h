// HandleRegistry: the live handles of one kind that the C interface gave
// out, so that every call can tell a handle it made from a null, closed or
// foreign one without touching the memory behind it.
//
// A handle is a number the registry gives out once and never again, in the
// shape of a pointer that is never dereferenced: a closed handle stays
// unknown for good, even when its object's memory is given to another
// object. The registry owns the object (shared: a call in progress holds
// it too, so that a close on another thread cannot destroy it under that
// call). Find answers null for a handle not live. Registries are made once and never destroyed,
// so that no object is torn down while the process exits (a cache's worker
// thread must not be joined from a library's unload).
//
// Thread-safety: every member may be called from any thread; one mutex,
// held only for the map's lookup, insert or erase.
#ifndef TOVREL_CAPI_HANDLEREGISTRY_H
#define TOVREL_CAPI_HANDLEREGISTRY_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace Tovrel {

template <class Object>
class HandleRegistry {
 public:
  // The one registry of this kind.
  static HandleRegistry& Instance() {
    static HandleRegistry* const registry = new HandleRegistry;
    return *registry;
  }

  // Registers the object under a handle never given out before.
  Object* Add(std::shared_ptr<Object> object) {
    std::lock_guard<std::mutex> guard(mutex_);
    const std::uintptr_t handle = next_;
    next_ += kStep;
    live_.emplace(handle, std::move(object));
    return reinterpret_cast<Object*>(handle);
  }
  // The object of a live handle, or null.
  std::shared_ptr<Object> Find(const Object* handle) const {
    if (handle == nullptr) return nullptr;
    std::lock_guard<std::mutex> guard(mutex_);
    const auto found = live_.find(reinterpret_cast<std::uintptr_t>(handle));
    return found == live_.end() ? nullptr : found->second;
  }
  // Ends the handle; the object, or null when the handle was not live.
  std::shared_ptr<Object> Remove(const Object* handle) {
    if (handle == nullptr) return nullptr;
    std::lock_guard<std::mutex> guard(mutex_);
    const auto found = live_.find(reinterpret_cast<std::uintptr_t>(handle));
    if (found == live_.end()) return nullptr;
    std::shared_ptr<Object> object = std::move(found->second);
    live_.erase(found);
    return object;
  }

 private:
  HandleRegistry() = default;

  // Handles start above the first page and keep an object's alignment, so
  // that they look like the pointers their C type says they are.
  static constexpr std::uintptr_t kStep = 16;

  mutable std::mutex mutex_;
  std::uintptr_t next_ = 0x10000;  // the next handle; each is given once
  std::unordered_map<std::uintptr_t, std::shared_ptr<Object>> live_;
};

}  // namespace Tovrel

#endif
