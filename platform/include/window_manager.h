#pragma once

#include <cstdint>
#include <vector>

#include "refbase.h"

namespace KITE {

// A window that is visible now.
struct KITE_API WindowVisibilityInfo : virtual RefBase {
    explicit WindowVisibilityInfo(int32_t ownerUid) : uid(ownerUid) {}

    const int32_t uid;  // of the window's owner
};

// The window manager.
class KITE_API WindowManager {
  public:
    static WindowManager& GetInstance();

    // Appends the windows that are visible now; 0 on success. Any thread but the one that serves requests.
    int32_t GetVisibilityWindowInfo(std::vector<sptr<WindowVisibilityInfo>>& infos) const;
};

}  // namespace KITE
