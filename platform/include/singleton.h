#pragma once

#include <memory>
#include <mutex>
#include <new>
#include <type_traits>

#include "refbase.h"

namespace KITE {

// A process-wide instance that is created at its first use and shared by pointer. GetInstance may be called
// on any thread; it returns null only when memory for the instance could not be had.
//
// An instance that is reference counted itself has one owner that deletes it, its count: the shared pointer
// holds one strong reference and gives that back.
template <typename T>
class DelayedSingleton {
  public:
    DelayedSingleton() = delete;

    static std::shared_ptr<T> GetInstance() {
        static std::mutex creation;
        static std::shared_ptr<T> instance;
        const std::lock_guard lock(creation);
        if (instance) {
            return instance;
        }
        std::unique_ptr<T> created(new (std::nothrow) T());
        if constexpr (!std::is_base_of_v<RefBase, T>) {
            instance = std::move(created);
        } else if (created) {
            created->IncStrongRef();
            instance.reset(created.release(), [](T* counted) { counted->DecStrongRef(); });
        }
        return instance;
    }
};

}  // namespace KITE
