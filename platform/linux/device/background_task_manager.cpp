#include "background_task_manager.h"

#include "device/device_state.h"

namespace KITE {

namespace {

using ResourceList = std::vector<std::shared_ptr<ResourceCallbackInfo>>;

void Append(const std::vector<Linux::DeviceState::EfficiencyResource>& resources, ResourceList& list) {
    for (const auto& [uid, pid, number] : resources) {
        list.push_back(std::make_shared<ResourceCallbackInfo>(uid, pid, number));
    }
}

}  // namespace

int32_t BackgroundTaskMgrHelper::GetContinuousTaskApps(
    std::vector<std::shared_ptr<ContinuousTaskCallbackInfo>>& list) {
    const auto state = Linux::CurrentDeviceState();
    for (const auto& [uid, pid, types] : state->continuousTasks) {
        list.push_back(std::make_shared<ContinuousTaskCallbackInfo>(uid, pid, types));
    }
    return 0;
}

int32_t BackgroundTaskMgrHelper::GetEfficiencyResourcesInfos(ResourceList& appList, ResourceList& procList) {
    const auto state = Linux::CurrentDeviceState();
    Append(state->applicationResources, appList);
    Append(state->processResources, procList);
    return 0;
}

}  // namespace KITE
