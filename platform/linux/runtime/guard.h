#pragma once

#include <exception>

#include "visibility.h"

namespace KITE::Linux {

// Logs what a call into another component threw; null when it was no std::exception.
KITE_API void ReportThrown(const char* what, const char* message);

// Calls into another component's code: what it throws ends here, with an error line, and nothing leaves.
// `what` names the call.
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
