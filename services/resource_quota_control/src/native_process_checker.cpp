#include "native_process_checker.h"

#include "file_utils.h"
#include "resource_quota_control_log.h"

namespace KITE::ResourceQuotaCtl {

namespace {

constexpr size_t kMaxNameLength = 15;

}  // namespace

bool NatvieProcessChecker::VerifyPidAndProcessName(int32_t pid, const std::string& processName) const {
    std::string realName;
    if (!GetProcessNameByPid(pid, realName) || realName.empty()) {
        return false;
    }
    RQC_LOGD("real name is %{public}s", realName.c_str());
    return processName.find(realName) != std::string::npos;
}

bool NatvieProcessChecker::GetProcessNameByPid(int32_t pid, std::string& name) const {
    std::string cmdline;
    if (!LoadStringFromFile("/proc/" + std::to_string(pid) + "/cmdline", cmdline)) {
        return false;
    }
    ParseProcessName(cmdline, name);
    return true;
}

// The last '/' of the whole content counts, also one inside a later argument. The name ends at the first NUL,
// with which the argument ends.
void NatvieProcessChecker::ParseProcessName(const std::string& cmdline, std::string& name) const {
    const size_t slash = cmdline.rfind('/');
    const size_t start = slash == std::string::npos ? 0 : slash + 1;
    name = cmdline.substr(start, kMaxNameLength).c_str();
}

}  // namespace KITE::ResourceQuotaCtl
