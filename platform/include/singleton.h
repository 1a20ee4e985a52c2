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
        if (!instance) {
            instance = Create();
        }
        return instance;
    }

  private:
    static std::shared_ptr<T> Create() {
        std::unique_ptr<T> created(new (std::nothrow) T());
        if constexpr (std::is_base_of_v<RefBase, T>) {
            if (created) {
                created->IncStrongRef();
            }
            return std::shared_ptr<T>(created.release(), [](T* counted) {
                if (counted != nullptr) {
                    counted->DecStrongRef();
                }
            });
        } else {
            return std::shared_ptr<T>(std::move(created));
        }
    }
};

}  // namespace KITE
