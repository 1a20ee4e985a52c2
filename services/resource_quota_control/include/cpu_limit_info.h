#pragma once

#include <cstdint>

namespace KITE::ResourceQuotaCtl {

// How far the staged treatment of one process has come.
struct CpuLimitInfo {
    int32_t uid = 0;  // when last seen
    int32_t pid = 0;  // when last seen
    bool isSuppressed = false;
    bool isFrozen = false;  // a freeze was requested during this suppression
};

}  // namespace KITE::ResourceQuotaCtl
