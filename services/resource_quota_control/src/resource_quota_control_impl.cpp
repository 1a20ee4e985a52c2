#include "resource_quota_control_impl.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <string_view>
#include <utility>

#include "app_mgr_helper.h"
#include "background_task_manager.h"
#include "native_process_checker.h"
#include "parameters.h"
#include "power_manager.h"
#include "resource_quota_control_errors.h"
#include "resource_quota_control_execute_helper.h"
#include "resource_quota_control_io_helper.h"
#include "resource_quota_control_log.h"
#include "resource_schedule.h"
#include "singleton.h"
#include "task_runtime.h"
#include "window_manager.h"

namespace KITE::ResourceQuotaCtl {

namespace {

using Kelvra::ProcessAnomalyInfo;

constexpr int32_t kProcessTypesPerGeneralType = 1000;
constexpr int32_t kApplicationType = 1;
constexpr int32_t kExtensionType = 2;

constexpr int32_t kForeground = 1;
constexpr int32_t kBackground = 2;
constexpr int32_t kScreenOff = 8;
constexpr int32_t kScreenOn = 16;

// The background-task manager's numbers for what exempts a process from IO quotas.
constexpr uint32_t kDataTransferTask = 1;
constexpr uint32_t kExemptingResource = 0x1;
constexpr uint32_t kExemptingAppResource = 0x40;

// The resource-schedule service's numbers for what this service asks of it.
constexpr uint32_t kCpuLimitRequest = 72;
constexpr int64_t kFreeze = 0;
constexpr int64_t kSuppressionStarts = 5;
constexpr int64_t kSuppressionEnds = 6;
constexpr const char* kCpuLimitExtension = "10005";
constexpr const char* kFreezeTimeMs = "2000";
constexpr std::chrono::microseconds kSuppressionTime{6'000'000};

constexpr bool CpuLimitInfo::*kKilled = nullptr;  // after the last stage there is no entry

const int32_t debuggable = GetIntParameter("const.debuggable", 0);

bool LiesIn(uint32_t condition, int32_t current) {
    return (condition & ~static_cast<uint32_t>(current)) == 0;
}

std::unordered_map<std::string, std::string> CpuLimitPayload(const std::string& processName,
                                                             const CpuLimitInfo& entry) {
    return {{"processName", processName},
            {"uid", std::to_string(entry.uid)},
            {"pid", std::to_string(entry.pid)},
            {"extType", kCpuLimitExtension}};
}

void Report(int64_t value, const std::unordered_map<std::string, std::string>& payload) {
    ResSchedClient::GetInstance().ReportData(kCpuLimitRequest, value, payload);
}

}  // namespace

bool ResourceQuotaControlImpl::InitKelvraTaskObserver() {
    std::shared_ptr<KelvraTaskObserver> observer;
    {
        const std::lock_guard lock(observerMutex_);
        if (kelvraTaskObserver_) {
            RQC_LOGI("kelvraTaskObserver_ has been inited!");
            return true;
        }
        observer = std::make_shared<KelvraTaskObserver>(shared_from_this());
        kelvraTaskObserver_ = observer;
    }
    if (Kelvra::KelvraManagerClient::GetInstance().SubscribeKelvraTask(*observer) != ERR_OK) {
        RQC_LOGE("SubscribeKelvraTask failed");
        return false;
    }
    historyEnabled_ = historyEnabled_ || debuggable != 0;
    RQC_LOGI("InitKelvraTaskObserver successfully");
    return true;
}

void ResourceQuotaControlImpl::HandleKelvraDied() {
    RQC_LOGI("HandleKelvraDied called");
    const std::lock_guard lock(observerMutex_);
    kelvraTaskObserver_.reset();
}

void ResourceQuotaControlImpl::SendHandlerEvent(std::vector<ProcessAnomalyInfo> infos) {
    SubmitTask([self = shared_from_this(),
                infos = std::move(infos)]() mutable { self->HandleAbnormalInfos(std::move(infos)); },
               {.name = "SendHandlerEvent"});
}

void ResourceQuotaControlImpl::HandleAbnormalInfos(std::vector<ProcessAnomalyInfo> infos) {
    for (const ProcessAnomalyInfo& info : infos) {
        Record(abnormalInfos_, info);
        RQC_LOGI("abnormal info %{public}s", AbnormalInfoTostring(info).c_str());
        if (!DelayedSingleton<NatvieProcessChecker>::GetInstance()->VerifyPidAndProcessName(
                info.pid, info.processName)) {
            RQC_LOGE("cannot verify pid and process name");
            continue;
        }
        const int32_t generalType = info.processType / kProcessTypesPerGeneralType;
        if (generalType < 0 || generalType > kExtensionType) {
            RQC_LOGE("cannot get general type");
            continue;
        }
        HandleAbnormalProcess(info, generalType);
    }
}

void ResourceQuotaControlImpl::HandleAbnormalProcess(const Info& info, int32_t generalType) {
    if (info.resType == "io") {
        if (IsExemptBgContinuousTask(info)) {
            RQC_LOGI("pid:%{public}d has special continuous task, it can be exempted", info.pid);
            return;
        }
        if (IsExemptEfficiencyResources(info)) {
            RQC_LOGI("pid:%{public}d has special efficiency resource type, it can be exempted", info.pid);
            return;
        }
    }
    if (info.resType == "cpu_ext") {
        HandleAbnormalProcessEnhance(info);
        return;
    }
    if (generalType == kExtensionType || info.conditions.empty()) {
        ExecuteAbnormalProcess(info);
        return;
    }
    const int32_t current = GetCurrentCondition(info, generalType);
    // Each condition that matches executes the action: two of them execute it twice.
    for (const uint32_t condition : info.conditions) {
        if (LiesIn(condition, current)) {
            RQC_LOGI("current condition is %{public}d, matched condition is %{public}d", current,
                     static_cast<int32_t>(condition));
            ExecuteAbnormalProcess(info);
        }
    }
}

bool ResourceQuotaControlImpl::IsExemptBgContinuousTask(const Info& info) {
    std::vector<std::shared_ptr<ContinuousTaskCallbackInfo>> tasks;
    if (BackgroundTaskMgrHelper::GetContinuousTaskApps(tasks) != ERR_OK) {
        RQC_LOGE("get continuous task failed!");
        return false;
    }
    for (const auto& task : tasks) {
        if (task && task->GetCreatorUid() == info.uid && task->GetCreatorPid() == info.pid &&
            std::ranges::count(task->GetTypeIds(), kDataTransferTask) != 0) {
            RQC_LOGI("pid %{public}d has data transfer continuous task", info.pid);
            return true;
        }
    }
    return false;
}

bool ResourceQuotaControlImpl::IsExemptEfficiencyResources(const Info& info) {
    std::vector<std::shared_ptr<ResourceCallbackInfo>> apps;
    std::vector<std::shared_ptr<ResourceCallbackInfo>> processes;
    BackgroundTaskMgrHelper::GetEfficiencyResourcesInfos(apps, processes);
    for (const auto& app : apps) {
        if (!app) {
            RQC_LOGE("app resource error!");
        } else if (app->GetUid() == info.uid &&
                   (app->GetResourceNumber() & (kExemptingResource | kExemptingAppResource)) != 0) {
            RQC_LOGI("uid %{public}d has proc resource Number: %{public}u.", info.uid,
                     app->GetResourceNumber());
            return true;
        }
    }
    for (const auto& process : processes) {
        if (!process) {
            RQC_LOGE("process resource error!");
        } else if (process->GetPid() == info.pid &&
                   (process->GetResourceNumber() & kExemptingResource) != 0) {
            RQC_LOGI("pid %{public}d has proc resource Number: %{public}u.", info.pid,
                     process->GetResourceNumber());
            return true;
        }
    }
    return false;
}

int32_t ResourceQuotaControlImpl::GetCurrentCondition(const Info& info, int32_t generalType) {
    const int32_t current = PowerMgrClient::GetInstance().IsScreenOn() ? kScreenOn : kScreenOff;
    if (generalType != kApplicationType) {
        return current;
    }
    const std::optional<bool> isSeen = IsSeenApplication(info);
    if (!isSeen) {
        RQC_LOGE("%{public}d does not match %{public}d", info.uid, info.pid);
        return current;
    }
    return current | (*isSeen ? kForeground : kBackground);
}

std::optional<bool> ResourceQuotaControlImpl::IsSeenApplication(const Info& info) {
    const auto [isMatched, isInForeground] =
        DelayedSingleton<AppMgrHelper>::GetInstance()->VerifyAppPidAndCheckForeground(info.uid, info.pid);
    if (!isMatched) {
        return std::nullopt;
    }
    return isInForeground || CheckVisibilityWindowInfo(info.uid);
}

bool ResourceQuotaControlImpl::CheckVisibilityWindowInfo(int32_t uid) {
    std::vector<sptr<WindowVisibilityInfo>> windows;
    WindowManager::GetInstance().GetVisibilityWindowInfo(windows);
    const bool isVisible =
        std::ranges::any_of(windows, [uid](const auto& window) { return window && window->uid == uid; });
    if (isVisible) {
        RQC_LOGI("%{public}d has visible window", uid);
    } else {
        RQC_LOGI("%{public}d doesn't have visible window", uid);
    }
    return isVisible;
}

int32_t ResourceQuotaControlImpl::ExecuteAbnormalProcess(const Info& info) {
    Record(executedInfos_, info);
    if (info.action == "warning") {
        RQC_LOGI("abnormal info %{public}s", AbnormalInfoTostring(info).c_str());
        return ERR_OK;
    }
    if (info.action == "freeze") {
        return ResourceQuotaControlExecuteHelper::FreezeOneNativeProcess(info.pid, info.uid,
                                                                         info.processName);
    }
    if (info.action == "kill") {
        return ResourceQuotaControlExecuteHelper::KillProcessByPid(info.pid, info.resType, info.processName);
    }
    return ERR_RQC_UNKNOWN_ACTION;
}

void ResourceQuotaControlImpl::HandleAbnormalProcessEnhance(const Info& info) {
    Record(enhanceInfos_, info);
    RQC_LOGI("resource value, processName: %{public}s, resource: %{public}ld", info.processName.c_str(),
             info.resource);
    const bool isSuppressRequired = CheckWhetherSuppressRequired(info);
    if (!FindCpuLimitInfo(info.processName)) {
        RQC_LOGD("process not exit, processName: %{public}s", info.processName.c_str());
        return;
    }
    if (CheckProcessStatus(info)) {
        RQC_LOGI("cancel suppress, %{public}d is in foreground or has window visible", info.uid);
        return;
    }
    if (isSuppressRequired) {
        ReportSuppressProcessInfo(info);
        return;
    }
    if (ReportFreezeProcessInfo(info)) {
        return;
    }
    ResourceQuotaControlExecuteHelper::KillProcessByPid(info.pid, info.resType, info.processName);
    RQC_LOGI("kill process for quota exceed, processName: %{public}s, uid: %{public}d,pid: %{public}d",
             info.processName.c_str(), info.uid, info.pid);
    MarkCpuLimitInfo(info.processName, info.pid, kKilled);
}

bool ResourceQuotaControlImpl::CheckWhetherSuppressRequired(const Info& info) {
    const std::lock_guard lock(cpuLimitMutex_);
    CpuLimitInfo& entry =
        cpuLimitInfos_.try_emplace(info.processName, CpuLimitInfo{info.uid, info.pid}).first->second;
    if (entry.pid != info.pid) {
        entry = CpuLimitInfo{info.uid, info.pid};
    }
    return !entry.isSuppressed;
}

bool ResourceQuotaControlImpl::CheckProcessStatus(const Info& info) {
    const std::optional<bool> isSeen = IsSeenApplication(info);
    if (!isSeen) {
        // Logged by each caller: a line bears the name of the function that logs it.
        RQC_LOGE("%{public}d does not match %{public}d", info.uid, info.pid);
    }
    return isSeen.value_or(false);
}

void ResourceQuotaControlImpl::ReportSuppressProcessInfo(const Info& info) {
    const auto entry = FindCpuLimitInfo(info.processName);
    if (!entry) {
        RQC_LOGD("process not exit, processName: %{public}s", info.processName.c_str());
        return;
    }
    Report(kSuppressionStarts, CpuLimitPayload(info.processName, *entry));
    MarkCpuLimitInfo(info.processName, entry->pid, &CpuLimitInfo::isSuppressed);
    RQC_LOGI("process enter suppress, processName: %{public}s, uid: %{public}d,pid: %{public}d",
             info.processName.c_str(), entry->uid, entry->pid);
    SubmitTask([self = shared_from_this(), entry = *entry,
                processName = info.processName] { self->EndSuppression(processName, entry); },
               {.name = "ReportSuppressProcessInfo", .delay = kSuppressionTime});
}

void ResourceQuotaControlImpl::EndSuppression(const std::string& processName,
                                              const CpuLimitInfo& suppressed) {
    Report(kSuppressionEnds, CpuLimitPayload(processName, suppressed));
    std::unique_lock lock(cpuLimitMutex_);
    // A process that was killed meanwhile has no entry; it gets one with uid and pid 0.
    CpuLimitInfo& entry = cpuLimitInfos_[processName];
    entry = CpuLimitInfo{entry.uid, entry.pid};
    const CpuLimitInfo ended = entry;
    lock.unlock();
    RQC_LOGI("process exit suppress, processName: %{public}s, uid: %{public}d,pid: %{public}d",
             processName.c_str(), ended.uid, ended.pid);
}

bool ResourceQuotaControlImpl::ReportFreezeProcessInfo(const Info& info) {
    const auto entry = FindCpuLimitInfo(info.processName);
    if (!entry) {
        RQC_LOGD("process not exit, processName: %{public}s", info.processName.c_str());
        return true;
    }
    if (entry->isFrozen) {
        return false;
    }
    auto payload = CpuLimitPayload(info.processName, *entry);
    payload.emplace("freezeTime", kFreezeTimeMs);
    Report(kFreeze, payload);
    RQC_LOGI("process is freezed, processName: %{public}s, uid: %{public}d,pid: %{public}d",
             info.processName.c_str(), entry->uid, entry->pid);
    MarkCpuLimitInfo(info.processName, entry->pid, &CpuLimitInfo::isFrozen);
    return true;
}

std::optional<CpuLimitInfo> ResourceQuotaControlImpl::FindCpuLimitInfo(const std::string& processName) {
    const std::lock_guard lock(cpuLimitMutex_);
    const auto entry = cpuLimitInfos_.find(processName);
    return entry == cpuLimitInfos_.end() ? std::nullopt : std::optional(entry->second);
}

void ResourceQuotaControlImpl::MarkCpuLimitInfo(const std::string& processName, int32_t pid,
                                                bool CpuLimitInfo::*stage) {
    const std::lock_guard lock(cpuLimitMutex_);
    const auto entry = cpuLimitInfos_.find(processName);
    if (entry == cpuLimitInfos_.end() || entry->second.pid != pid) {
        return;
    }
    if (stage != nullptr) {
        entry->second.*stage = true;
    } else {
        cpuLimitInfos_.erase(entry);
    }
}

void ResourceQuotaControlImpl::DumpWritebytesAbility(std::string& /*result*/, int32_t pid) {
    if (pid == 0) {
        RQC_LOGE("input pid is invalid, please remember to enter the pid parameter.");
        return;
    }
    std::vector<uint64_t> writeBytes;
    ResourceQuotaControlIoHelper::GetIoWriteBytes({pid}, writeBytes);
    RQC_LOGI("receive data, pid:%{public}d writeBytes:%{public}lu", pid, writeBytes.front());
}

}  // namespace KITE::ResourceQuotaCtl
