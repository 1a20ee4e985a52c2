#include "app_mgr_helper.h"

#include <vector>

#include "resource_quota_control_log.h"
#include "system_ability.h"

namespace KITE::ResourceQuotaCtl {

bool AppMgrHelper::Connect() {
    if (appMgrProxy_) {
        return true;
    }
    const auto registry = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    if (!registry) {
        RQC_LOGE("get SystemAbilityManager failed");
        return false;
    }
    const auto object = registry->GetSystemAbility(APP_MGR_SERVICE_ID);
    if (!object) {
        RQC_LOGE("get App Manager Service failed");
        return false;
    }
    appMgrProxy_ = iface_cast<IAppMgr>(object);
    if (!appMgrProxy_) {
        RQC_LOGE("get app mgr proxy failed!");
        return false;
    }
    return true;
}

std::pair<bool, bool> AppMgrHelper::VerifyAppPidAndCheckForeground(int32_t uid, int32_t pid) {
    const std::lock_guard lock(mutex_);
    if (!Connect()) {
        return {false, false};
    }
    bool isMatched = false;
    std::vector<RunningProcessInfo> runningProcesses;
    appMgrProxy_->GetAllRunningProcesses(runningProcesses);
    for (const auto& process : runningProcesses) {
        if (process.pid == pid && process.uid == uid) {
            RQC_LOGI("%{public}d and %{public}d is matched", uid, pid);
            isMatched = true;
        }
    }
    if (!isMatched) {
        std::vector<RenderProcessInfo> renderProcesses;
        appMgrProxy_->GetAllRenderProcesses(renderProcesses);
        for (const auto& process : renderProcesses) {
            if (process.renderPid == pid && process.uid == uid) {
                RQC_LOGI("Render process %{public}d and %{public}d is matched", uid, pid);
                isMatched = true;
            }
        }
    }
    bool isInForeground = false;
    std::vector<AppStateData> foregroundApplications;
    appMgrProxy_->GetForegroundApplications(foregroundApplications);
    for (const auto& application : foregroundApplications) {
        if (application.uid == uid) {
            RQC_LOGI("%{public}d is in foreground", uid);
            isInForeground = true;
        }
    }
    return {isMatched, isInForeground};
}

}  // namespace KITE::ResourceQuotaCtl
