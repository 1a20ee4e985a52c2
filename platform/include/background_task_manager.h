#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "visibility.h"

namespace KITE {

// A task that an application keeps running in the background with the user's knowledge.
class ContinuousTaskCallbackInfo {
  public:
    ContinuousTaskCallbackInfo(int32_t creatorUid, int32_t creatorPid, std::vector<uint32_t> typeIds)
        : creatorUid_(creatorUid), creatorPid_(creatorPid), typeIds_(std::move(typeIds)) {}

    int32_t GetCreatorUid() const noexcept { return creatorUid_; }
    int32_t GetCreatorPid() const noexcept { return creatorPid_; }
    const std::vector<uint32_t>& GetTypeIds() const noexcept { return typeIds_; }

  private:
    int32_t creatorUid_;
    int32_t creatorPid_;
    std::vector<uint32_t> typeIds_;
};

// Resources that an application or a process was granted beyond its share, as a bit set.
class ResourceCallbackInfo {
  public:
    ResourceCallbackInfo(int32_t uid, int32_t pid, uint32_t resourceNumber)
        : uid_(uid), pid_(pid), resourceNumber_(resourceNumber) {}

    int32_t GetUid() const noexcept { return uid_; }
    int32_t GetPid() const noexcept { return pid_; }
    uint32_t GetResourceNumber() const noexcept { return resourceNumber_; }

  private:
    int32_t uid_;
    int32_t pid_;
    uint32_t resourceNumber_;
};

// The background-task manager. Both queries append to their lists, which may come to hold null records, and
// return 0 on success. Any thread but the one that serves requests.
class KITE_API BackgroundTaskMgrHelper {
  public:
    BackgroundTaskMgrHelper() = delete;

    static int32_t GetContinuousTaskApps(std::vector<std::shared_ptr<ContinuousTaskCallbackInfo>>& list);
    static int32_t GetEfficiencyResourcesInfos(std::vector<std::shared_ptr<ResourceCallbackInfo>>& appList,
                                               std::vector<std::shared_ptr<ResourceCallbackInfo>>& procList);
};

}  // namespace KITE
