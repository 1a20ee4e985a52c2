#pragma once

#include <cstdint>

namespace KITE::ResourceQuotaCtl {

// Results of the service's operations.
inline constexpr int32_t ERR_OK = 0;
inline constexpr int32_t ERR_RQC_READ_PARCEL_FAILED = 0x2610006;  // the request cannot be read
inline constexpr int32_t ERR_RQC_INVALID_PARAM = 0x2610008;       // the pid list is empty or too long
inline constexpr int32_t ERR_RQC_DUMP_FAILED = 0x261000C;         // the dump was refused or not written
inline constexpr int32_t ERR_RQC_PERMISSION_DENIED = 0x261000D;   // the caller is not a trusted process
inline constexpr int32_t ERR_RQC_UNKNOWN_ACTION = 0x261000E;   // an anomaly report asks for no known action
inline constexpr int32_t ERR_RQC_CONFIG_NOT_INIT = 0x261000F;  // there is no quota policy
inline constexpr int32_t ERR_RQC_TOO_MANY_ITEMS = 0x2610011;   // too many running times for one reply

}  // namespace KITE::ResourceQuotaCtl
