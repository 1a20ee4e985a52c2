#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace KITE::ResourceQuotaCtl {

// How many bytes processes have caused to be written to storage, as the kernel counts them. Without state;
// any thread.
class ResourceQuotaControlIoHelper {
  public:
    ResourceQuotaControlIoHelper() = delete;

    // Appends one entry per pid, in order; all ones for a process whose count cannot be read. An empty list
    // is an error and appends nothing.
    static void GetIoWriteBytes(const std::vector<int32_t>& processPids, std::vector<uint64_t>& writeBytes);
    // False, with the reason logged, when the count cannot be read.
    static bool GetWriteBytesByPid(const int32_t& pid, uint64_t& bytes);
    // The number behind the first colon of a line, 0 when no digits follow it; false without a colon.
    static bool GetValueFromStr(const std::string& line, uint64_t& value);
};

}  // namespace KITE::ResourceQuotaCtl
