#include "runtime/guard.h"

#include "runtime/platform_log.h"

namespace KITE::Linux {

void ReportThrown(const char* what, const char* message) {
    PLATFORM_LOGE("%{public}s threw: %{public}s", what,
                  message == nullptr ? "an object that is not a std::exception" : message);
}

}  // namespace KITE::Linux
