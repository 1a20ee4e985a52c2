// The operations of platform/include, answered by the script.

#include <array>
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

template <typename... Args>
void Record(const char* name, const Args&... args) {
    if (!Platform::Get().isTraced) {
        return;
    }
    std::ostringstream call;
    [[maybe_unused]] const char* separator = "";
    call << name << '(' << std::boolalpha;
    ((call << std::exchange(separator, ", ") << args), ...);
    call << ')';
    Platform::Get().RecordCall(call.str());
}

std::string Format(const char* format, va_list arguments) {
    std::array<char, 4096> shortText;
    va_list again;
    va_copy(again, arguments);
    std::string text(static_cast<size_t>(std::vsnprintf(shortText.data(), shortText.size(), format, again)),
                     ' ');
    va_end(again);
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

std::string Text(const std::unordered_map<std::string, std::string>& payload) {
    std::string text;
    for (const auto& [key, value] : std::map<std::string, std::string>(payload.begin(), payload.end())) {
        text.append(text.empty() ? "" : ", ").append(key).append("=").append(value);
    }
    return '{' + text + '}';
}

std::optional<std::string> EnvironmentParameter(const std::string& key) {
    const char* all = std::getenv("KITE_FAKE_PARAMETERS");  // NOLINT(concurrency-mt-unsafe): nobody sets it
    std::istringstream entries(all == nullptr ? "" : all);
    for (std::string entry; std::getline(entries, entry, ';');) {
        if (entry.starts_with(key + '=')) {
            return entry.substr(key.size() + 1);
        }
    }
    return std::nullopt;
}

std::optional<std::string> Parameter(const std::string& key) {
    auto value = EnvironmentParameter(key);
    const auto& parameters = Platform::Get().parameters;
    const auto scripted = parameters.find(key);
    return value || scripted == parameters.end() ? value : scripted->second;
}

class Registry : public ISystemAbilityManager {
  public:
    sptr<IRemoteObject> GetSystemAbility(int32_t systemAbilityId) override {
        Record("GetSystemAbility", systemAbilityId);
        return systemAbilityId == APP_MGR_SERVICE_ID ? Platform::Get().appManager : nullptr;
    }
};

template <typename T>
T& TheOne() {
    static T one;
    return one;
}

}  // namespace

void Log::Write(Level level, const Label& label, const Site& site, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text = Format(format, arguments);
    va_end(arguments);
    if (!Platform::Get().isTraced) {
        return;
    }
    const bool isRight =
        label.domain == 0xD001716 && std::strcmp(label.tag, "RESOURCE_QUOTA_CONTROL") == 0 && site.line > 0;
    text = isRight ? text : "wrong label: " + text;
    Platform::Get().RecordLine({level, site.unit, site.function, std::move(text)});
}

bool SystemAbility::MakeAndRegisterAbility(SystemAbility* ability) {
    Record("MakeAndRegisterAbility", ability == nullptr ? 0 : ability->GetSystemAbilityId());
    Platform::Get().registeredAbility = ability;
    return ability != nullptr;
}

bool SystemAbility::AddSystemAbilityListener(int32_t systemAbilityId) {
    Record("AddSystemAbilityListener", systemAbilityId);
    if (const auto during = std::exchange(Platform::Get().duringListen, nullptr)) {
        during();
    }
    return true;
}

bool SystemAbility::Publish(sptr<IRemoteObject> object) {
    Record("Publish", systemAbilityId_);
    Platform::Get().publishedObject = std::move(object);
    return Platform::Get().publishResult;
}

SystemAbilityManagerClient& SystemAbilityManagerClient::GetInstance() {
    return TheOne<SystemAbilityManagerClient>();
}

sptr<ISystemAbilityManager> SystemAbilityManagerClient::GetSystemAbilityManager() {
    Record("GetSystemAbilityManager");
    return Platform::Get().hasRegistry ? MakeSptr<Registry>() : nullptr;
}

uint32_t IPCSkeleton::GetCallingTokenID() {
    return Platform::Get().callingToken;
}

uint32_t IPCSkeleton::GetFirstTokenID() {
    return Platform::Get().firstToken;
}

int32_t AccessTokenKit::GetNativeTokenInfo(uint32_t tokenId, NativeTokenInfo& info) {
    Record("GetNativeTokenInfo", tokenId);
    const auto& processes = Platform::Get().nativeProcesses;
    const auto process = processes.find(tokenId);
    if (process == processes.end()) {
        return -1;
    }
    info.processName = process->second;
    return 0;
}

int32_t AccessTokenKit::VerifyAccessToken(uint32_t tokenId, const std::string& permission) {
    Record("VerifyAccessToken", tokenId, permission);
    return Platform::Get().permissions.contains({tokenId, permission}) ? PERMISSION_GRANTED
                                                                       : PERMISSION_DENIED;
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
    Record("LoadStringFromFile", path);
    if (Platform::Get().loadFile != nullptr) {
        return Platform::Get().loadFile(path, content);
    }
    const auto& files = Platform::Get().files;
    const auto file = files.find(path);
    if (file == files.end()) {
        return false;
    }
    content = file->second;
    return true;
}

bool SaveStringToFd(int fd, const std::string& content) {
    Record("SaveStringToFd", fd, content.size());
    if (Platform::Get().canSave) {
        Platform::Get().saved = content;
    }
    return Platform::Get().canSave;
}

TimeServiceClient& TimeServiceClient::GetInstance() {
    return TheOne<TimeServiceClient>();
}

int64_t TimeServiceClient::GetWallTimeMs() const {
    return Platform::Get().wallTimeMs;
}

void SubmitTask(std::function<void()> task, TaskAttributes attributes) {
    Record("SubmitTask", attributes.name, attributes.delay.count());
    Platform::Get().AddTask({std::move(attributes.name), attributes.delay, std::move(task)});
}

WindowManager& WindowManager::GetInstance() {
    return TheOne<WindowManager>();
}

int32_t WindowManager::GetVisibilityWindowInfo(std::vector<sptr<WindowVisibilityInfo>>& infos) const {
    Record("GetVisibilityWindowInfo");
    for (const int32_t uid : Platform::Get().windowOwners) {
        infos.push_back(uid < 0 ? nullptr : MakeSptr<WindowVisibilityInfo>(uid));
    }
    return -1;  // callers use the list as it is
}

int32_t BackgroundTaskMgrHelper::GetContinuousTaskApps(
    std::vector<std::shared_ptr<ContinuousTaskCallbackInfo>>& list) {
    Record("GetContinuousTaskApps");
    list = Platform::Get().continuousTasks;
    return Platform::Get().continuousTaskResult;
}

int32_t BackgroundTaskMgrHelper::GetEfficiencyResourcesInfos(
    std::vector<std::shared_ptr<ResourceCallbackInfo>>& appList,
    std::vector<std::shared_ptr<ResourceCallbackInfo>>& procList) {
    Record("GetEfficiencyResourcesInfos");
    appList = Platform::Get().appResources;
    procList = Platform::Get().processResources;
    return -1;  // callers use the lists as they are
}

PowerMgrClient& PowerMgrClient::GetInstance() {
    return TheOne<PowerMgrClient>();
}

bool PowerMgrClient::IsScreenOn() const {
    Record("IsScreenOn");
    return Platform::Get().isScreenOn;
}

ResSchedClient& ResSchedClient::GetInstance() {
    return TheOne<ResSchedClient>();
}

void ResSchedClient::ReportData(uint32_t resType, int64_t value,
                                const std::unordered_map<std::string, std::string>& payload) {
    Record("ReportData", resType, value, Text(payload));
}

int32_t ResSchedClient::KillProcess(const std::unordered_map<std::string, std::string>& payload) {
    Record("KillProcess", Text(payload));
    return Platform::Get().killResult;
}

SuspendManagerClient& SuspendManagerClient::GetInstance() {
    return TheOne<SuspendManagerClient>();
}

int32_t SuspendManagerClient::OperateOneNativeProcess(const NativeProcessInfo& process) {
    Record("OperateOneNativeProcess", process.pid, process.uid, process.processName, process.reason,
           process.durationMs, process.isFreeze);
    return Platform::Get().freezeResult;
}

int32_t QuillRec::Write(std::string_view domain, std::string_view name, EventType type,
                        const std::vector<EventField>& fields) {
    std::ostringstream texts;
    for (const EventField& field : fields) {
        texts << ' ' << field.key << '=';
        std::visit([&texts](const auto& value) { texts << value; }, field.value);
    }
    Record("QuillRec::Write", domain, name, static_cast<int>(type), texts.str().substr(1));
    return Platform::Get().eventResult;
}

namespace Kelvra {

KelvraManagerClient& KelvraManagerClient::GetInstance() {
    return TheOne<KelvraManagerClient>();
}

int32_t KelvraManagerClient::SetProcessQuota(int32_t reserved, std::vector<ResQuotaInfo>& quotas) {
    Record("SetProcessQuota", reserved, quotas.size());
    Platform::Get().quotas = quotas;
    return Platform::Get().setQuotaResult;
}

int32_t KelvraManagerClient::SubscribeKelvraTask(const KelvraManagerTaskSubscriber& subscriber) {
    Record("SubscribeKelvraTask");
    if (Platform::Get().subscribeResult == 0) {
        Platform::Get().KeepSubscriber(subscriber.weak_from_this());
    }
    if (Platform::Get().duringSubscribe) {
        Platform::Get().duringSubscribe();
    }
    return Platform::Get().subscribeResult;
}

}  // namespace Kelvra

}  // namespace KITE

extern "C" CfgDir* GetCfgDirList() {
    KITE::Record("GetCfgDirList");
    const auto& directories = KITE::Fake::Platform::Get().configDirectories;
    if (!directories) {
        return nullptr;
    }
    auto* list = static_cast<CfgDir*>(std::calloc(1, sizeof(CfgDir)));
    for (size_t i = 0; list != nullptr && i < directories->size() && i < MAX_CFG_POLICY_DIRS_CNT; ++i) {
        const auto& directory = (*directories)[i];
        list->paths[i] = directory ? strdup(directory->c_str()) : nullptr;
    }
    return list;
}

extern "C" void FreeCfgDirList(CfgDir* list) {
    KITE::Record("FreeCfgDirList");
    if (list != nullptr) {
        for (char* path : list->paths) {
            std::free(path);
        }
    }
    std::free(list);
}
