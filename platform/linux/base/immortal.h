#pragma once

#include <utility>

namespace KITE::Linux {

// An object that is never destroyed, to be declared static within a function: threads log and record events
// while the process runs its exit handlers, and load-time initialisers do so before main.
template <typename T>
union Immortal {
    template <typename... Args>
    explicit Immortal(Args&&... args) : value(std::forward<Args>(args)...) {}
    ~Immortal() {}

    T value;
};

}  // namespace KITE::Linux
