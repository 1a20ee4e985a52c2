#include "device/device_state.h"

#include <algorithm>

#include "base/file_names.h"
#include "device/device_state_file.h"
#include "base/immortal.h"
#include "runtime/settings.h"

namespace KITE::Linux {

namespace {

bool Contains(const std::vector<int32_t>& pids, int32_t pid) {
    return std::ranges::find(pids, pid) != pids.end();
}

}  // namespace

std::shared_ptr<const DeviceState> CurrentDeviceState() {
    static Immortal<DeviceStateFile> file;
    return file.value.Current(GetSettings().stateDirectory + FileName::kDeviceState);
}

int32_t GeneralTypeOf(int32_t uid, int32_t pid) {
    constexpr int32_t kNeither = 0;
    constexpr int32_t kApplication = 1;
    constexpr int32_t kExtension = 2;
    const auto state = CurrentDeviceState();
    const auto isOfApplication = [&](const DeviceState::Application& application) {
        return application.uid == uid &&
               (Contains(application.processes, pid) || Contains(application.renderProcesses, pid));
    };
    const auto isExtension = [&](const DeviceState::Extension& extension) {
        return extension.uid == uid && extension.pid == pid;
    };
    if (std::ranges::any_of(state->applications, isOfApplication)) {
        return kApplication;
    }
    return std::ranges::any_of(state->extensions, isExtension) ? kExtension : kNeither;
}

}  // namespace KITE::Linux
