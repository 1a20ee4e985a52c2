#pragma once

#include <utility>

namespace KITE::Linux {

// A static object that is never destroyed. Threads still log and record events while the process runs its
// exit handlers, and load-time initialisers do so before main: declared static within a function, it works
// for both.
template <typename T>
union Immortal {
    template <typename... Args>
    explicit Immortal(Args&&... args) : value(std::forward<Args>(args)...) {}
    ~Immortal() {}

    T value;
};

}  // namespace KITE::Linux
