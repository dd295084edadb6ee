// RefPtr<T>: a counted reference to an ARefObject-derived object.
//
// Holding a RefPtr holds one reference: construction from a pointer or a
// copy adds one, destruction or reassignment releases it. An empty RefPtr
// holds nothing. Thread-safety: a RefPtr object itself is not synchronised;
// distinct RefPtrs to one object may be used from different threads as far
// as the object's own count is concerned.
#ifndef HOST_REFPTR_H
#define HOST_REFPTR_H

#include <utility>

template <typename T>
class RefPtr {
 public:
  RefPtr() noexcept : object_(nullptr) {}
  RefPtr(T* object) noexcept : object_(object) {  // NOLINT: implicit by design
    if (object_ != nullptr) object_->AddRef();
  }
  RefPtr(const RefPtr& other) noexcept : RefPtr(other.object_) {}
  RefPtr(RefPtr&& other) noexcept : object_(other.object_) { other.object_ = nullptr; }
  template <typename U>
  RefPtr(const RefPtr<U>& other) noexcept : RefPtr(other.Get()) {}  // NOLINT
  ~RefPtr() { Reset(); }

  RefPtr& operator=(const RefPtr& other) noexcept {
    RefPtr(other).Swap(*this);
    return *this;
  }
  RefPtr& operator=(RefPtr&& other) noexcept {
    RefPtr(std::move(other)).Swap(*this);
    return *this;
  }
  RefPtr& operator=(T* object) noexcept {
    RefPtr(object).Swap(*this);
    return *this;
  }

  // Releases the held reference, if any, and becomes empty.
  void Reset() noexcept {
    T* old = object_;
    object_ = nullptr;
    if (old != nullptr) old->Release();
  }

  void Swap(RefPtr& other) noexcept { std::swap(object_, other.object_); }

  T* Get() const noexcept { return object_; }
  T* operator->() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }
  bool operator==(const RefPtr& other) const noexcept { return object_ == other.object_; }
  bool operator!=(const RefPtr& other) const noexcept { return object_ != other.object_; }

 private:
  T* object_;  // the referenced object, or null; one reference is held on it
};

#endif
