#include "app_manager.h"

#include "device/device_state.h"

namespace KITE {

namespace {

using Linux::CurrentDeviceState, Linux::DeviceState;

// Both the object that the registry hands out and the interface that it is cast to.
class AppManager : public IPCObjectStub, public IAppMgr {
  public:
    AppManager() : IPCObjectStub(u"kite.IAppMgr", false) {}

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

}  // namespace

sptr<IRemoteObject> Linux::AppManagerObject() {
    static const sptr<AppManager> object = MakeSptr<AppManager>();
    return object;
}

}  // namespace KITE
