#include "resource_quota_control_service.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "access_token.h"
#include "file_utils.h"
#include "kelvra_manager_client.h"
#include "parameters.h"
#include "res_policy_manager.h"
#include "resource_quota_control_dumper.h"
#include "resource_quota_control_impl.h"
#include "resource_quota_control_io_helper.h"
#include "resource_quota_control_log.h"
#include "singleton.h"
#include "string_utils.h"

namespace KITE::ResourceQuotaCtl {

namespace {

constexpr bool kRunOnCreate = true;
constexpr std::array<std::string_view, 3> kTrustedCallers{"resource_schedule_service", "faultd", "svcdb"};
constexpr const char* kDumpPermission = "kite.permission.DUMP";

// Loading the library reads the switch, registers the service and reads the kind of build, in this order.
const bool isServiceEnabled = GetBoolParameter("persist.sys.resource_quota_control_enable", true);
[[maybe_unused]] const bool isRegistered =
    SystemAbility::MakeAndRegisterAbility(DelayedSingleton<ResourceQuotaControlService>::GetInstance().get());
const int32_t debuggable = GetIntParameter("const.debuggable", 0);

// Who may call. Queries are answered to trusted processes, which the access-token service knows by name; any
// other caller has an empty name. Dumps are for debuggable builds and for who holds the permission.

std::string CallingProcessName() {
    NativeTokenInfo info{};
    AccessTokenKit::GetNativeTokenInfo(IPCSkeleton::GetCallingTokenID(), info);
    return info.processName;
}

bool IsTrustedCaller(std::string_view processName) {
    return std::ranges::find(kTrustedCallers, processName) != kTrustedCallers.end();
}

bool AllowDump() {
    if (debuggable == 0) {
        return false;
    }
    if (AccessTokenKit::VerifyAccessToken(IPCSkeleton::GetFirstTokenID(), kDumpPermission) !=
        PERMISSION_GRANTED) {
        RQC_LOGE("CheckPermission failed");
        return false;
    }
    return true;
}

}  // namespace

ResourceQuotaControlService::ResourceQuotaControlService()
    : SystemAbility(RESOURCE_QUOTA_CONTROL_SERVICE_ID, kRunOnCreate) {}

void ResourceQuotaControlService::OnStart() {
    if (!isServiceEnabled) {
        RQC_LOGI("ResourceQuotaControl is not enabled.");
        return;
    }
    RQC_LOGI("start.");
    if (isRunning) {
        // Spelt so on purpose: the text is a contract with who reads the log.
        RQC_LOGI("service is runnning, not repeatly start, return.");
        return;
    }
    if (!DelayedSingleton<ResPolicyManager>::GetInstance()->Init()) {
        RQC_LOGE("init res policy manager failed");
        return;
    }
    AddSystemAbilityListener(KELVRA_MANAGER_SERVICE_ID);
    isRunning = true;
}

void ResourceQuotaControlService::OnAddSystemAbility(int32_t systemAbilityId, const std::string& /*device*/) {
    RQC_LOGI("Add system ability systemAbilityId:%{public}d", systemAbilityId);
    if (systemAbilityId != KELVRA_MANAGER_SERVICE_ID) {
        RQC_LOGI("Unhandled sysabilityId:%{public}d", systemAbilityId);
        return;
    }
    if (!DelayedSingleton<ResourceQuotaControlImpl>::GetInstance()->InitKelvraTaskObserver()) {
        RQC_LOGE("InitKelvraTaskObserver failed");
        return;
    }
    if (SetConfigToKelvraManager() != ERR_OK) {
        RQC_LOGE("SetConfigToKelvraManager failed");
        return;
    }
    if (Publish(this)) {
        RQC_LOGI("publish resource quota control service successfully!");
    } else {
        RQC_LOGE("publish resource quota control service failed!");
    }
}

void ResourceQuotaControlService::OnRemoveSystemAbility(int32_t systemAbilityId,
                                                        const std::string& /*device*/) {
    RQC_LOGI("remove system ability systemAbilityId:%{public}d", systemAbilityId);
    if (systemAbilityId == KELVRA_MANAGER_SERVICE_ID) {
        DelayedSingleton<ResourceQuotaControlImpl>::GetInstance()->HandleKelvraDied();
    } else {
        RQC_LOGI("Unhandled sysabilityId:%{public}d", systemAbilityId);
    }
}

int32_t ResourceQuotaControlService::SetConfigToKelvraManager() {
    constexpr int32_t kReserved = 0;
    const auto policy = DelayedSingleton<ResPolicyManager>::GetInstance();
    if (!policy->IsConfigInit()) {
        RQC_LOGE("IsConfigInit is false");
        return ERR_RQC_CONFIG_NOT_INIT;
    }
    std::vector<Kelvra::ResQuotaInfo> quotas;
    policy->GetAllResQuotaInfos(quotas);
    Kelvra::KelvraManagerClient::GetInstance().SetProcessQuota(kReserved, quotas);
    return ERR_OK;
}

int32_t ResourceQuotaControlService::GetIoWriteBytes(const std::vector<int32_t>& processPids,
                                                     std::vector<uint64_t>& writeBytes) {
    const std::string caller = CallingProcessName();
    RQC_LOGI("Process %{public}s called GetIoWriteBytes", caller.c_str());
    if (!IsTrustedCaller(caller)) {
        RQC_LOGE("illegal access to this interface.");
        return ERR_RQC_PERMISSION_DENIED;
    }
    // The stub checks this too; here it bounds callers within the process.
    if (processPids.empty() || processPids.size() > MAX_IO_PIDS) {
        RQC_LOGE("pid vector size is invalid.");
        return ERR_RQC_INVALID_PARAM;
    }
    RQC_LOGI("processPids.size() %{public}ld", static_cast<long>(processPids.size()));
    ResourceQuotaControlIoHelper::GetIoWriteBytes(processPids, writeBytes);
    return ERR_OK;
}

int32_t ResourceQuotaControlService::GetExtensionRunningTime(std::map<std::string, int32_t>& runningTimes) {
    const std::string caller = CallingProcessName();
    RQC_LOGI("Process %{public}s called GetExtensionRunningTime", caller.c_str());
    if (!IsTrustedCaller(caller)) {
        RQC_LOGE("illegal access to this interface.");
        return ERR_RQC_PERMISSION_DENIED;
    }
    runningTimes = DelayedSingleton<ResPolicyManager>::GetInstance()->GetExtensionRunningTime();
    return ERR_OK;
}

int32_t ResourceQuotaControlService::Dump(int fd, const std::vector<std::u16string>& args) {
    if (!AllowDump()) {
        return ERR_RQC_DUMP_FAILED;
    }
    std::vector<std::string> words(args.size());
    std::ranges::transform(args, words.begin(), Str16ToStr8);
    std::string result;
    ResourceQuotaControlDumper::Dump(words, result);
    if (!SaveStringToFd(fd, result)) {
        RQC_LOGE("save to fd failed.");
        return ERR_RQC_DUMP_FAILED;
    }
    return ERR_OK;
}

}  // namespace KITE::ResourceQuotaCtl
