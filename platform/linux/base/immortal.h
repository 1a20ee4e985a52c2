#pragma once

#include <utility>

namespace KITE::Linux {

// A static object that is never destroyed, for what must still work while the process exits. Declared static
// within a function, it also works before main.
template <typename T>
union Immortal {
    template <typename... Args>
    explicit Immortal(Args&&... args) : value(std::forward<Args>(args)...) {}
    ~Immortal() {}

    T value;
};

}  // namespace KITE::Linux
