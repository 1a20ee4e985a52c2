#pragma once

#include "visibility.h"

namespace KITE {

// The power manager.
class KITE_API PowerMgrClient {
  public:
    static PowerMgrClient& GetInstance();

    // Any thread but the one that serves requests.
    bool IsScreenOn() const;
};

}  // namespace KITE
