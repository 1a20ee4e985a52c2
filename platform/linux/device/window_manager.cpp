#include "window_manager.h"

#include "device/device_state.h"

namespace KITE {

WindowManager& WindowManager::GetInstance() {
    static WindowManager instance;
    return instance;
}

int32_t WindowManager::GetVisibilityWindowInfo(std::vector<sptr<WindowVisibilityInfo>>& infos) const {
    const auto state = Linux::CurrentDeviceState();
    for (const Linux::DeviceState::Application& application : state->applications) {
        if (application.visibleWindow) {
            infos.push_back(MakeSptr<WindowVisibilityInfo>(application.uid));
        }
    }
    return 0;
}

}  // namespace KITE
