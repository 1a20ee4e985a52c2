#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "resource_quota_control_stub.h"
#include "system_ability.h"

namespace KITE::ResourceQuotaCtl {

// The service as its host sees it. Loading the library creates and registers it; the host then starts it.
//
// It publishes its remote interface only when the Kelvra manager is available and has accepted a
// subscription, and does so again at each return of the manager; it is never withdrawn.
class ResourceQuotaControlService : public SystemAbility, public ResourceQuotaControlStub {
  public:
    ResourceQuotaControlService();

    // Loads the quota policy and listens for the Kelvra manager. A service that is switched off, and one
    // whose policy cannot be loaded, stays registered and not started; the latter may be started again.
    void OnStart() override;
    void OnStop() override {}
    void OnAddSystemAbility(int32_t systemAbilityId, const std::string& device) override;
    void OnRemoveSystemAbility(int32_t systemAbilityId, const std::string& device) override;
    // Writes the report that the arguments ask for. ERR_OK, or ERR_RQC_DUMP_FAILED with nothing written when
    // the build is not debuggable or the first caller lacks the dump permission.
    int32_t Dump(int fd, const std::vector<std::u16string>& args) override;
    std::string GetClassName() override { return "ResourceQuotaControlService"; }

    int32_t GetIoWriteBytes(const std::vector<int32_t>& processPids,
                            std::vector<uint64_t>& writeBytes) override;
    int32_t GetExtensionRunningTime(std::map<std::string, int32_t>& runningTimes) override;

  private:
    using RequestHandler = std::function<int(ResourceQuotaControlService*, int64_t, std::string&)>;

    // ERR_OK also when the Kelvra manager refuses the quotas: that must not stop publication.
    int32_t SetConfigToKelvraManager();
    bool AllowDump() const;

    std::atomic<bool> isRunning{false};
    std::map<uint32_t, RequestHandler> requestHandlers_;  // stays empty: the stub dispatches by itself
};

}  // namespace KITE::ResourceQuotaCtl
