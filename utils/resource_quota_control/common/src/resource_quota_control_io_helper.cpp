#include "resource_quota_control_io_helper.h"

#include <cstdlib>
#include <fstream>
#include <limits>

#include "resource_quota_control_log.h"

namespace KITE::ResourceQuotaCtl {

namespace {

constexpr uint64_t kUnreadable = std::numeric_limits<uint64_t>::max();

// The first line with the count. A line that a read error cuts does not count, since it may hold a part of
// the number only; a last line without its newline does.
bool ReadWriteBytesLine(std::istream& file, std::string& line) {
    while (std::getline(file, line)) {
        if (line.starts_with("write_bytes:")) {
            return true;
        }
    }
    return false;
}

}  // namespace

void ResourceQuotaControlIoHelper::GetIoWriteBytes(const std::vector<int32_t>& processPids,
                                                   std::vector<uint64_t>& writeBytes) {
    if (processPids.empty()) {
        RQC_LOGE("pid vector size is invalid.");
        return;
    }
    for (const int32_t pid : processPids) {
        uint64_t bytes = 0;
        writeBytes.push_back(GetWriteBytesByPid(pid, bytes) ? bytes : kUnreadable);
    }
    RQC_LOGI("writeBytes.size() %{public}ld", static_cast<long>(writeBytes.size()));
}

bool ResourceQuotaControlIoHelper::GetWriteBytesByPid(const int32_t& pid, uint64_t& bytes) {
    const std::string path = "/proc/" + std::to_string(pid) + "/io";
    std::ifstream file(path);
    if (!file.is_open()) {
        RQC_LOGE("file %{public}s not found, can not get io data.", path.c_str());
        return false;
    }
    std::string line;
    if (!ReadWriteBytesLine(file, line)) {
        RQC_LOGE("Failed to get io data from file %{public}s.", path.c_str());
        return false;
    }
    if (!GetValueFromStr(line, bytes)) {
        RQC_LOGE("Failed to parse io lineContent: %{public}s, from file:  %{public}s", line.c_str(),
                 path.c_str());
        return false;
    }
    return true;
}

bool ResourceQuotaControlIoHelper::GetValueFromStr(const std::string& line, uint64_t& value) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) {
        return false;
    }
    value = std::strtoull(line.c_str() + colon + 1, nullptr, 10);
    return true;
}

}  // namespace KITE::ResourceQuotaCtl
