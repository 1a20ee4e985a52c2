#pragma once

#include <cstdint>

#include "visibility.h"

namespace KITE {

// The time service.
class KITE_API TimeServiceClient {
  public:
    static TimeServiceClient& GetInstance();

    // Wall-clock milliseconds since the epoch. Any thread.
    int64_t GetWallTimeMs() const;
};

}  // namespace KITE
