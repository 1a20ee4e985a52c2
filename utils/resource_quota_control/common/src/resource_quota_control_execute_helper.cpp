#include "resource_quota_control_execute_helper.h"

#include <array>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "resource_quota_control_log.h"
#include "resource_schedule.h"
#include "suspend_manager.h"
#include "system_event.h"

namespace KITE::ResourceQuotaCtl {

namespace {

constexpr int32_t kLeftToTheManager = -1;

constexpr std::array<std::pair<std::string_view, std::string_view>, 4> kKillReasons{{
    {"io", "Kill Reason:IO Manage Control"},
    {"cpu", "Kill Reason:CPU Highload"},
    {"cpu_ext", "Kill Reason:CPU_EXT Highload"},
    {"mem", "Kill Reason:App Memory Deterioration"},
}};

using Payload = std::unordered_map<std::string, std::string>;

Payload KillPayload(int32_t pid, const std::string& resType, const std::string& processName) {
    Payload payload{{"pid", std::to_string(pid)}, {"processName", processName}};
    for (const auto& [type, reason] : kKillReasons) {
        if (type == resType) {
            payload.emplace("killReason", reason);
        }
    }
    return payload;
}

}  // namespace

int32_t ResourceQuotaControlExecuteHelper::KillProcessByPid(int32_t pid, const std::string& resType,
                                                            const std::string& processName) {
    if (pid < 1) {
        return -1;
    }
    RQC_LOGI("process pid:%{public}d, resType:%{public}s, processName: %{public}s", pid, resType.c_str(),
             processName.c_str());
    Payload payload = KillPayload(pid, resType, processName);
    const int32_t result = ResSchedClient::GetInstance().KillProcess(payload);
    const std::string& reason = payload["killReason"];
    if (result == 0 && !reason.empty()) {
        const int32_t written =
            QuillRec::Write("FRAMEWORK", "PROCESS_KILL", QuillRec::EventType::kFault,
                            {{"PID", pid}, {"PROCESS_NAME", processName}, {"MSG", reason}});
        RQC_LOGI(
            "quillrec write result=%{public}d, send event [FRAMEWORK,PROCESS_KILL], pid=%{public}d, "
            "processName=%{public}s, msg=%{public}s",
            written, pid, processName.c_str(), reason.c_str());
    }
    return result;
}

int32_t ResourceQuotaControlExecuteHelper::FreezeOneNativeProcess(int32_t pid, int32_t uid,
                                                                  const std::string& processName) {
    const NativeProcessInfo process{.pid = pid,
                                    .uid = uid,
                                    .processName = processName,
                                    .reason = kLeftToTheManager,
                                    .durationMs = kLeftToTheManager,
                                    .isFreeze = true};
    const int32_t result = SuspendManagerClient::GetInstance().OperateOneNativeProcess(process);
    RQC_LOGI(
        "freeze process, pid is %{public}d, uid is %{public}d, process name is %{public}s result is "
        "%{public}d",
        pid, uid, processName.c_str(), result);
    return result;
}

}  // namespace KITE::ResourceQuotaCtl
