#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <array>

#include "base/unique_fd.h"

namespace KITE::Tools {

// A pipe, closed on exec; both ends are none when there are no descriptors left.
struct Pipe {
    Pipe() {
        std::array<int, 2> ends{-1, -1};
        if (pipe2(ends.data(), O_CLOEXEC) == 0) {
            readEnd = Linux::UniqueFd(ends[0]);
            writeEnd = Linux::UniqueFd(ends[1]);
        }
    }

    Linux::UniqueFd readEnd;
    Linux::UniqueFd writeEnd;
};

}  // namespace KITE::Tools
