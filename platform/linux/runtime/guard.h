#pragma once

#include <exception>

#include "visibility.h"

namespace KITE::Linux {

// Logs that the call threw, with the exception's message; null for an object that is not a std::exception.
KITE_API void ReportThrown(const char* what, const char* message);

// Calls another component's code. An exception ends here, with an error line. `what` names the call.
template <typename Function>
void RunGuarded(const char* what, Function&& function) {
    try {
        function();
    } catch (const std::exception& thrown) {
        ReportThrown(what, thrown.what());
    } catch (...) {
        ReportThrown(what, nullptr);
    }
}

}  // namespace KITE::Linux
