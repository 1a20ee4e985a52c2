#pragma once

#include <exception>

#include "runtime/platform_log.h"

namespace KITE::Linux {

// Calls another component's code. An exception ends here, with an error line. `what` names the call.
template <typename Function>
void RunGuarded(const char* what, Function&& function) {
    try {
        function();
    } catch (const std::exception& thrown) {
        PLATFORM_LOGE("%{public}s threw: %{public}s", what, thrown.what());
    } catch (...) {
        PLATFORM_LOGE("%{public}s threw an object that is not a std::exception", what);
    }
}

}  // namespace KITE::Linux
