// The operations of platform/include, answered by the script.

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "access_token.h"
#include "config_policy.h"
#include "fake_platform.h"
#include "file_utils.h"
#include "parameters.h"
#include "power_manager.h"
#include "resource_schedule.h"
#include "suspend_manager.h"
#include "system_event.h"
#include "task_runtime.h"
#include "time_service.h"
#include "window_manager.h"

namespace KITE {

namespace {

using Fake::Platform;

// The platform, once the call is in its trace.
template <typename... Args>
Platform& Record(const char* name, const Args&... args) {
    Platform& platform = Platform::Get();
    if (platform.isTraced) {
        std::ostringstream call;
        [[maybe_unused]] const char* separator = "";
        call << name << '(' << std::boolalpha;
        ((call << std::exchange(separator, ", ") << args), ...);
        call << ')';
        platform.Record({false, name, call.str()});
    }
    return platform;
}

std::string Text(const std::unordered_map<std::string, std::string>& payload) {
    std::string text;
    for (const auto& [key, value] : std::map<std::string, std::string>(payload.begin(), payload.end())) {
        text.append(text.empty() ? "" : ", ").append(key).append("=").append(value);
    }
    return '{' + text + '}';
}

std::optional<std::string> Parameter(const std::string& key) {
    const char* all = std::getenv("KITE_FAKE_PARAMETERS");  // NOLINT(concurrency-mt-unsafe): it is never set
    std::istringstream entries(all == nullptr ? "" : all);
    for (std::string entry; std::getline(entries, entry, ';');) {
        if (entry.starts_with(key + '=')) {
            return entry.substr(key.size() + 1);
        }
    }
    return std::nullopt;
}

constexpr int32_t kIgnored = -1;  // a result; callers use the lists as they are

class AppManager : public IRemoteStub<IAppMgr> {
  public:
    int32_t GetAllRunningProcesses(std::vector<RunningProcessInfo>& infos) override {
        infos = Record("GetAllRunningProcesses").runningProcesses;
        return kIgnored;
    }
    int32_t GetAllRenderProcesses(std::vector<RenderProcessInfo>& infos) override {
        infos = Record("GetAllRenderProcesses").renderProcesses;
        return kIgnored;
    }
    int32_t GetForegroundApplications(std::vector<AppStateData>& infos) override {
        infos = Record("GetForegroundApplications").foregroundApplications;
        return kIgnored;
    }
};

class Registry : public ISystemAbilityManager {
  public:
    sptr<IRemoteObject> GetSystemAbility(int32_t systemAbilityId) override {
        const Platform& platform = Record("GetSystemAbility", systemAbilityId);
        return systemAbilityId == APP_MGR_SERVICE_ID ? platform.appManager : nullptr;
    }
};

}  // namespace

sptr<IRemoteObject> Fake::MakeAppManager() {
    return MakeSptr<AppManager>();
}

void Log::Write(Level level, const Label& label, const Site& site, const char* format, ...) {
    char text[8192];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (Platform::Get().isTraced) {
        const bool isOurs =
            label.domain == 0xD001716 && label.tag == std::string_view("RESOURCE_QUOTA_CONTROL");
        Platform::Get().Record({true, std::string(site.unit) + '(' + site.function + ')',
                                std::string{"DIWE"[static_cast<int>(level)], ' '} +
                                    (isOurs ? "" : "of another label: ") + text});
    }
}

bool SystemAbility::MakeAndRegisterAbility(SystemAbility* ability) {
    Record("MakeAndRegisterAbility", ability->GetSystemAbilityId()).registeredAbility = ability;
    return true;
}

bool SystemAbility::AddSystemAbilityListener(int32_t systemAbilityId) {
    Platform& platform = Record("AddSystemAbilityListener", systemAbilityId);
    if (const auto during = std::exchange(platform.duringListen, nullptr)) {
        during();
    }
    return true;
}

bool SystemAbility::Publish(sptr<IRemoteObject> object) {
    Platform& platform = Record("Publish", systemAbilityId_);
    platform.publishedObject = std::move(object);
    return platform.publishResult;
}

sptr<ISystemAbilityManager> SystemAbilityManagerClient::GetSystemAbilityManager() {
    return Record("GetSystemAbilityManager").hasRegistry ? MakeSptr<Registry>() : nullptr;
}

uint32_t IPCSkeleton::GetCallingTokenID() {
    return Platform::Get().callingToken;
}

uint32_t IPCSkeleton::GetFirstTokenID() {
    return Platform::Get().firstToken;
}

int32_t AccessTokenKit::GetNativeTokenInfo(uint32_t tokenId, NativeTokenInfo& info) {
    const auto& processes = Record("GetNativeTokenInfo", tokenId).nativeProcesses;
    const auto process = processes.find(tokenId);
    const bool isKnown = process != processes.end();
    info.processName = isKnown ? process->second : info.processName;
    return isKnown ? 0 : -1;
}

int32_t AccessTokenKit::VerifyAccessToken(uint32_t tokenId, const std::string& permission) {
    const auto& granted = Record("VerifyAccessToken", tokenId, permission).permissions;
    return granted.contains({tokenId, permission}) ? PERMISSION_GRANTED : PERMISSION_DENIED;
}

bool GetBoolParameter(const std::string& key, bool defaultValue) {
    Record("GetBoolParameter", key, defaultValue);
    const auto value = Parameter(key);
    return value ? *value == "true" : defaultValue;
}

int32_t GetIntParameter(const std::string& key, int32_t defaultValue, int32_t minimum, int32_t maximum) {
    Record("GetIntParameter", key, defaultValue, minimum, maximum);
    const auto text = Parameter(key);
    int32_t value = 0;
    const bool isNumber =
        text && std::from_chars(text->data(), text->data() + text->size(), value).ec == std::errc();
    return isNumber && value >= minimum && value <= maximum ? value : defaultValue;
}

bool LoadStringFromFile(const std::string& path, std::string& content) {
    const Platform& platform = Record("LoadStringFromFile", path);
    if (platform.loadFile != nullptr) {
        return platform.loadFile(path, content);
    }
    const auto file = platform.files.find(path);
    content = file != platform.files.end() ? file->second : content;
    return file != platform.files.end();
}

bool SaveStringToFd(int fd, const std::string& content) {
    Platform& platform = Record("SaveStringToFd", fd, content.size());
    platform.saved = platform.canSave ? content : platform.saved;
    return platform.canSave;
}

int64_t TimeServiceClient::GetWallTimeMs() const {
    return Platform::Get().wallTimeMs;
}

void SubmitTask(std::function<void()> task, TaskAttributes attributes) {
    Record("SubmitTask", attributes.name, attributes.delay.count())
        .AddTask(std::move(task), attributes.delay);
}

int32_t WindowManager::GetVisibilityWindowInfo(std::vector<sptr<WindowVisibilityInfo>>& infos) const {
    for (const int32_t uid : Record("GetVisibilityWindowInfo").windowOwners) {
        infos.push_back(uid < 0 ? nullptr : MakeSptr<WindowVisibilityInfo>(uid));
    }
    return kIgnored;
}

int32_t BackgroundTaskMgrHelper::GetContinuousTaskApps(
    std::vector<std::shared_ptr<ContinuousTaskCallbackInfo>>& list) {
    const Platform& platform = Record("GetContinuousTaskApps");
    list = platform.continuousTasks;
    return platform.continuousTaskResult;
}

int32_t BackgroundTaskMgrHelper::GetEfficiencyResourcesInfos(
    std::vector<std::shared_ptr<ResourceCallbackInfo>>& appList,
    std::vector<std::shared_ptr<ResourceCallbackInfo>>& procList) {
    const Platform& platform = Record("GetEfficiencyResourcesInfos");
    appList = platform.appResources;
    procList = platform.processResources;
    return kIgnored;
}

bool PowerMgrClient::IsScreenOn() const {
    return Record("IsScreenOn").isScreenOn;
}

void ResSchedClient::ReportData(uint32_t resType, int64_t value,
                                const std::unordered_map<std::string, std::string>& payload) {
    Record("ReportData", resType, value, Text(payload));
}

int32_t ResSchedClient::KillProcess(const std::unordered_map<std::string, std::string>& payload) {
    return Record("KillProcess", Text(payload)).killResult;
}

int32_t SuspendManagerClient::OperateOneNativeProcess(const NativeProcessInfo& process) {
    return Record("OperateOneNativeProcess", process.pid, process.uid, process.processName, process.reason,
                  process.durationMs, process.isFreeze)
        .freezeResult;
}

int32_t QuillRec::Write(std::string_view domain, std::string_view name, EventType type,
                        const std::vector<EventField>& fields) {
    std::ostringstream texts;
    for (const EventField& field : fields) {
        texts << ' ' << field.key << '=';
        std::visit([&texts](const auto& value) { texts << value; }, field.value);
    }
    return Record("QuillRec::Write", domain, name, static_cast<int>(type), texts.str().substr(1)).eventResult;
}

int32_t Kelvra::KelvraManagerClient::SetProcessQuota(int32_t reserved, std::vector<ResQuotaInfo>& quotas) {
    Platform& platform = Record("SetProcessQuota", reserved, quotas.size());
    platform.quotas = quotas;
    return platform.setQuotaResult;
}

int32_t Kelvra::KelvraManagerClient::SubscribeKelvraTask(const KelvraManagerTaskSubscriber& subscriber) {
    Platform& platform = Record("SubscribeKelvraTask");
    if (platform.subscribeResult == 0) {
        platform.KeepSubscriber(subscriber.weak_from_this());
    }
    if (platform.duringSubscribe) {
        platform.duringSubscribe();
    }
    return platform.subscribeResult;
}

}  // namespace KITE

extern "C" CfgDir* GetCfgDirList() {
    const auto& directories = KITE::Record("GetCfgDirList").configDirectories;
    auto* list = directories.empty() ? nullptr : static_cast<CfgDir*>(std::calloc(1, sizeof(CfgDir)));
    for (size_t i = 0; list != nullptr && i < directories.size() && i < MAX_CFG_POLICY_DIRS_CNT; ++i) {
        list->paths[i] = directories[i] ? strdup(directories[i]->c_str()) : nullptr;
    }
    return list;
}

extern "C" void FreeCfgDirList(CfgDir* list) {
    KITE::Record("FreeCfgDirList");
    std::ranges::for_each(list->paths, std::free);
    std::free(list);
}
