// The managers that the service asks about the device. Each answers from the device state.
#include <algorithm>

#include "app_manager.h"
#include "background_task_manager.h"
#include "device/device_state.h"
#include "power_manager.h"
#include "window_manager.h"

namespace KITE {

namespace {

using Linux::CurrentDeviceState, Linux::DeviceState;

// Both the object that the registry hands out and the interface that it is cast to.
class AppManager : public IPCObjectStub, public IAppMgr {
  public:
    AppManager() : IPCObjectStub(GetDescriptor(), false) {}

    sptr<IRemoteObject> AsObject() override { return this; }

    int32_t GetAllRunningProcesses(std::vector<RunningProcessInfo>& infos) override {
        const auto state = CurrentDeviceState();
        for (const DeviceState::Application& application : state->applications) {
            for (const int32_t pid : application.processes) {
                infos.push_back({pid, application.uid});
            }
        }
        for (const DeviceState::Extension& extension : state->extensions) {
            infos.push_back({extension.pid, extension.uid});
        }
        return 0;
    }

    int32_t GetAllRenderProcesses(std::vector<RenderProcessInfo>& infos) override {
        const auto state = CurrentDeviceState();
        for (const DeviceState::Application& application : state->applications) {
            for (const int32_t pid : application.renderProcesses) {
                infos.push_back({pid, application.uid});
            }
        }
        return 0;
    }

    int32_t GetForegroundApplications(std::vector<AppStateData>& infos) override {
        const auto state = CurrentDeviceState();
        for (const DeviceState::Application& application : state->applications) {
            if (application.foreground) {
                infos.push_back({application.uid});
            }
        }
        return 0;
    }
};

using ResourceList = std::vector<std::shared_ptr<ResourceCallbackInfo>>;

void Append(const std::vector<DeviceState::EfficiencyResource>& resources, ResourceList& list) {
    for (const auto& [uid, pid, number] : resources) {
        list.push_back(std::make_shared<ResourceCallbackInfo>(uid, pid, number));
    }
}

bool Contains(const std::vector<int32_t>& pids, int32_t pid) {
    return std::ranges::find(pids, pid) != pids.end();
}

}  // namespace

sptr<IRemoteObject> Linux::AppManagerObject() {
    static const sptr<AppManager> object = MakeSptr<AppManager>();
    return object;
}

int32_t Linux::GeneralTypeOf(int32_t uid, int32_t pid) {
    constexpr int32_t kNeither = 0;
    constexpr int32_t kApplication = 1;
    constexpr int32_t kExtension = 2;
    const auto state = CurrentDeviceState();
    for (const DeviceState::Application& application : state->applications) {
        if (application.uid == uid &&
            (Contains(application.processes, pid) || Contains(application.renderProcesses, pid))) {
            return kApplication;
        }
    }
    for (const DeviceState::Extension& extension : state->extensions) {
        if (extension.uid == uid && extension.pid == pid) {
            return kExtension;
        }
    }
    return kNeither;
}

int32_t BackgroundTaskMgrHelper::GetContinuousTaskApps(
    std::vector<std::shared_ptr<ContinuousTaskCallbackInfo>>& list) {
    const auto state = CurrentDeviceState();
    for (const auto& [uid, pid, types] : state->continuousTasks) {
        list.push_back(std::make_shared<ContinuousTaskCallbackInfo>(uid, pid, types));
    }
    return 0;
}

int32_t BackgroundTaskMgrHelper::GetEfficiencyResourcesInfos(ResourceList& appList, ResourceList& procList) {
    const auto state = CurrentDeviceState();
    Append(state->applicationResources, appList);
    Append(state->processResources, procList);
    return 0;
}

bool PowerMgrClient::IsScreenOn() const {
    return CurrentDeviceState()->screenOn;
}

int32_t WindowManager::GetVisibilityWindowInfo(std::vector<sptr<WindowVisibilityInfo>>& infos) const {
    const auto state = CurrentDeviceState();
    for (const DeviceState::Application& application : state->applications) {
        if (application.visibleWindow) {
            infos.push_back(MakeSptr<WindowVisibilityInfo>(application.uid));
        }
    }
    return 0;
}

}  // namespace KITE
