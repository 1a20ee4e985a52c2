#include "time_service.h"

#include <chrono>

namespace KITE {

int64_t TimeServiceClient::GetWallTimeMs() const {
    using std::chrono::duration_cast, std::chrono::milliseconds, std::chrono::system_clock;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

}  // namespace KITE
