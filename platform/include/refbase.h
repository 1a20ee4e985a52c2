#pragma once

#include <atomic>
#include <concepts>
#include <utility>

#include "visibility.h"

namespace KITE {

// Base of everything that is shared by an intrusive reference count: remote objects, their interfaces and
// parcelable records. An object that is never handed to an sptr (a record in a vector, say) never deletes
// itself. Copying an object copies no count: the copy starts with none.
//
// IncStrongRef and DecStrongRef may be called on any thread; the object is deleted by the call that drops the
// last reference.
class KITE_API RefBase {
  public:
    RefBase() noexcept = default;
    RefBase(const RefBase&) noexcept {}
    RefBase& operator=(const RefBase&) noexcept { return *this; }
    virtual ~RefBase() = default;

    void IncStrongRef() const noexcept { strong_.fetch_add(1, std::memory_order_relaxed); }
    void DecStrongRef() const noexcept {
        if (strong_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }
    // The count at the moment of the call, for diagnostics and tests only.
    int StrongRefCount() const noexcept { return strong_.load(std::memory_order_relaxed); }

  private:
    mutable std::atomic<int> strong_{0};
};

// A strong reference to an object derived from RefBase.
template <typename T>
class sptr {
  public:
    sptr() noexcept = default;
    sptr(T* object) noexcept : object_(object) { Inc(); }
    sptr(const sptr& other) noexcept : object_(other.object_) { Inc(); }
    sptr(sptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    template <std::derived_from<T> U>
    sptr(sptr<U> other) noexcept : object_(other.ReleaseRef()) {}
    ~sptr() {
        if (object_ != nullptr) {
            object_->DecStrongRef();
        }
    }
    sptr& operator=(sptr other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }

    T* GetRefPtr() const noexcept { return object_; }
    // Gives the reference away: the caller owes one DecStrongRef.
    T* ReleaseRef() noexcept { return std::exchange(object_, nullptr); }
    T* operator->() const noexcept { return object_; }
    T& operator*() const noexcept { return *object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }
    bool operator==(const sptr& other) const noexcept { return object_ == other.object_; }

  private:
    void Inc() const noexcept {
        if (object_ != nullptr) {
            object_->IncStrongRef();
        }
    }

    T* object_ = nullptr;
};

// Creates an object that is owned by references from its first moment on.
template <typename T, typename... Args>
sptr<T> MakeSptr(Args&&... args) {
    return sptr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace KITE
