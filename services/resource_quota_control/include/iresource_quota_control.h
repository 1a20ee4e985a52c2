#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "remote_object.h"
#include "resource_quota_control_errors.h"

namespace KITE::ResourceQuotaCtl {

// The service's remote interface, under system ability RESOURCE_QUOTA_CONTROL_SERVICE_ID; it is published
// when the Kelvra manager is first available. Only the processes "resource_schedule_service", "faultd" and
// "svcdb" are answered.
//
// A request starts with the interface token GetDescriptor().
//   GET_IO_WRITE_BYTES          request: int32 vector of pids, 1 to 2048
//                               reply: uint64 vector, one entry per pid in order, all ones for a process that
//                               cannot be read; an empty vector for a caller that is not trusted; nothing for
//                               a list that is unreadable, empty or too long
//   GET_EXTENSION_RUNNING_TIME  request: nothing more
//                               reply: int32 result, uint32 count, then count times string name and int32
//                               running time in byte-wise order of the names; only the int32
//                               ERR_RQC_TOO_MANY_ITEMS when there are more than 500
class IResourceQuotaControl : public IRemoteBroker {
  public:
    enum RequestCode : uint32_t {
        GET_IO_WRITE_BYTES = 1,
        GET_EXTENSION_RUNNING_TIME = 2,
    };

    // "Mananger" is a part of the contract: clients send the descriptor, and it is compared letter by letter.
    static constexpr const char16_t* GetDescriptor() {
        return u"KITE.ResourceSchedule.EfficiencyMananger.ResourceQuotaControl";
    }

    // Appends the bytes written so far by each process, all ones where that cannot be read. ERR_OK,
    // ERR_RQC_PERMISSION_DENIED or ERR_RQC_INVALID_PARAM.
    virtual int32_t GetIoWriteBytes(const std::vector<int32_t>& processPids,
                                    std::vector<uint64_t>& writeBytes) = 0;
    // Replaces the map by the configured running times by process name. ERR_OK or ERR_RQC_PERMISSION_DENIED.
    virtual int32_t GetExtensionRunningTime(std::map<std::string, int32_t>& runningTimes) = 0;
};

inline constexpr int32_t RESOURCE_QUOTA_CONTROL_SERVICE_ID = 1913;
inline constexpr size_t MAX_IO_PIDS = 2048;       // in one request
inline constexpr size_t MAX_RUNNING_TIMES = 500;  // in one reply
inline constexpr uint64_t UNREADABLE_WRITE_BYTES = std::numeric_limits<uint64_t>::max();

}  // namespace KITE::ResourceQuotaCtl
