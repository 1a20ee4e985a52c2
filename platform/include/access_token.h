#pragma once

#include <cstdint>
#include <string>

#include "visibility.h"

namespace KITE {

inline constexpr int32_t PERMISSION_GRANTED = 0;
inline constexpr int32_t PERMISSION_DENIED = -1;

struct NativeTokenInfo {
    std::string processName;
};

// The access-token service: what a process may do, by its token id. Id 0 belongs to no process. Any thread.
class KITE_API AccessTokenKit {
  public:
    AccessTokenKit() = delete;

    // Fills the record of a native process; 0 on success. For an application, and for an id that belongs to
    // no process, the result is not 0 and the record stays as it was.
    static int32_t GetNativeTokenInfo(uint32_t tokenId, NativeTokenInfo& info);
    // PERMISSION_GRANTED or PERMISSION_DENIED.
    static int32_t VerifyAccessToken(uint32_t tokenId, const std::string& permission);
};

}  // namespace KITE
