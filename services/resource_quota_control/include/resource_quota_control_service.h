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
// Each time the Kelvra manager becomes available the service subscribes to its reports, hands it all quotas
// and publishes its remote interface. A refused subscription stops that once: it counts as tried until the
// manager goes away, so that the next arrival without a departure publishes. The interface is never
// withdrawn.
class ResourceQuotaControlService : public SystemAbility, public ResourceQuotaControlStub {
  public:
    ResourceQuotaControlService();

    // Loads the quota policy and listens for the Kelvra manager. A service that is switched off, and one
    // whose policy cannot be loaded, stays registered and not started; the latter may be started again.
    void OnStart() override;
    void OnStop() override {}
    void OnAddSystemAbility(int32_t systemAbilityId, const std::string& device) override;
    void OnRemoveSystemAbility(int32_t systemAbilityId, const std::string& device) override;
    // Writes the report that the arguments ask for. ERR_OK, or ERR_RQC_DUMP_FAILED when the build is not
    // debuggable, the first caller lacks the dump permission (nothing is written), or the report could not be
    // written whole.
    int32_t Dump(int fd, const std::vector<std::u16string>& args) override;
    std::string GetClassName() override { return "ResourceQuotaControlService"; }

    int32_t GetIoWriteBytes(const std::vector<int32_t>& processPids,
                            std::vector<uint64_t>& writeBytes) override;
    int32_t GetExtensionRunningTime(std::map<std::string, int32_t>& runningTimes) override;

  private:
    using RequestHandler = std::function<int(ResourceQuotaControlService*, int64_t, std::string&)>;

    // Hands all quotas to the Kelvra manager. ERR_OK also when it refuses them, since that must not stop
    // publication; ERR_RQC_CONFIG_NOT_INIT without a policy.
    int32_t SetConfigToKelvraManager();

    std::atomic<bool> isRunning{false};
    std::map<uint32_t, RequestHandler> requestHandlers_;  // stays empty: the stub dispatches by itself
};

}  // namespace KITE::ResourceQuotaCtl
