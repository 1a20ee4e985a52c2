#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace KITE::ResourceQuotaCtl {

// One anomaly report as the history keeps it.
struct DumpInfo {
    DumpInfo(int64_t duration, int64_t resource, int32_t uid, int32_t pid, int32_t id, uint32_t processType,
             const std::string& action, const std::string& resType, const std::string& processName,
             const std::vector<uint32_t>& conditions)
        : duration_(duration),
          resource_(resource),
          uid_(uid),
          pid_(pid),
          id_(id),
          processtype_(processType),
          action_(action),
          restype_(resType),
          processname_(processName),
          condition_(conditions) {}

    // One line without its newline.
    std::string ToString() const;

    int64_t timestamp_ = 0;  // wall-clock milliseconds since the epoch
    int64_t duration_;
    int64_t resource_;
    int32_t uid_;
    int32_t pid_;
    int32_t id_;
    uint32_t processtype_;
    std::string action_;
    std::string restype_;
    std::string processname_;
    std::vector<uint32_t> condition_;
};

}  // namespace KITE::ResourceQuotaCtl
