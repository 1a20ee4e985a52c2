#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "remote_object.h"

namespace KITE {

// A system service as its host sees it. A library's load-time initialiser registers its abilities; the host
// then drives them. Abilities are never unregistered, and a library is never unloaded.
class KITE_API SystemAbility {
  public:
    SystemAbility(int32_t systemAbilityId, bool runOnCreate)
        : systemAbilityId_(systemAbilityId), runOnCreate_(runOnCreate) {}
    SystemAbility(const SystemAbility&) = delete;
    SystemAbility& operator=(const SystemAbility&) = delete;
    virtual ~SystemAbility() = default;

    // Makes the ability known to the host. The pointer stays the caller's and must outlive the host's run.
    // False for null and for an id that is registered already. Called while a library is being loaded.
    static bool MakeAndRegisterAbility(SystemAbility* ability);

    int32_t GetSystemAbilityId() const noexcept { return systemAbilityId_; }
    bool IsRunOnCreate() const noexcept { return runOnCreate_; }

    // Called by the host on its own thread, once each, after loading and before the host ends.
    virtual void OnStart() {}
    virtual void OnStop() {}
    // Called on the registry's callback thread, one at a time and in order, for each id that
    // AddSystemAbilityListener named: added when the ability is or becomes available, removed when it goes.
    // An ability whose owner changes is removed and added. `device` is empty for this device.
    virtual void OnAddSystemAbility(int32_t /*systemAbilityId*/, const std::string& /*device*/) {}
    virtual void OnRemoveSystemAbility(int32_t /*systemAbilityId*/, const std::string& /*device*/) {}
    // Writes a report to the descriptor, which stays the caller's; 0 on success.
    virtual int32_t Dump(int /*fd*/, const std::vector<std::u16string>& /*args*/) { return 0; }
    virtual std::string GetClassName() { return "SystemAbility"; }

  protected:
    // Asks for OnAddSystemAbility and OnRemoveSystemAbility calls for another ability; one that is available
    // already is reported at once. False when the registry cannot be reached.
    bool AddSystemAbilityListener(int32_t systemAbilityId);
    // Makes the object reachable under this ability's id. Publishing again is a success. False for null, and
    // when another process has the id. Any thread but the one that serves requests.
    bool Publish(sptr<IRemoteObject> object);

  private:
    const int32_t systemAbilityId_;
    const bool runOnCreate_;
};

// Ids of the abilities that are known here by number.
inline constexpr int32_t APP_MGR_SERVICE_ID = 501;
inline constexpr int32_t KELVRA_MANAGER_SERVICE_ID = 1213;

// The registry of available abilities.
class KITE_API ISystemAbilityManager : public virtual RefBase {
  public:
    // The ability's remote object, or null when it is not available. Any thread but the one that serves
    // requests.
    virtual sptr<IRemoteObject> GetSystemAbility(int32_t systemAbilityId) = 0;
};

class KITE_API SystemAbilityManagerClient {
  public:
    static SystemAbilityManagerClient& GetInstance();
    // The registry, or null when it cannot be reached.
    sptr<ISystemAbilityManager> GetSystemAbilityManager();
};

}  // namespace KITE
