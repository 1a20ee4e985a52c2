#include "ipc/ability_registry.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

#include "device/device_state.h"
#include "ipc/bus.h"
#include "ipc/outgoing_call.h"
#include "ipc/remote_proxy.h"
#include "ipc/wire.h"
#include "runtime/platform_log.h"

namespace KITE {

namespace Linux {

namespace {

// Flag and answers of the daemon's RequestName.
constexpr uint32_t kDoNotQueue = 4;
constexpr uint32_t kPrimaryOwner = 1;
constexpr uint32_t kAlreadyOwner = 4;

struct Registry {
    std::mutex mutex;  // guards what follows
    std::vector<SystemAbility*> abilities;
    std::map<int32_t, sptr<IRemoteObject>> published;
};

// Load-time initialisers come here, so it must be there at the first use.
Registry& TheRegistry() {
    static Registry registry;
    return registry;
}

sptr<IRemoteObject> PublishedObject(int32_t abilityId) {
    Registry& registry = TheRegistry();
    const std::lock_guard lock(registry.mutex);
    const auto found = registry.published.find(abilityId);
    return found == registry.published.end() ? nullptr : found->second;
}

// Makes this process the owner of a bus name; a success when it is already. Waits for the daemon.
bool ClaimName(const std::string& name) {
    const auto make = [name](sd_bus* connection) {
        MessageHandle call = NewDaemonCall(connection, "RequestName", name);
        const bool isFilled = call && sd_bus_message_append(call.get(), "u", kDoNotQueue) >= 0;
        return isFilled ? std::move(call) : nullptr;
    };
    const auto answer = CallAndWait<std::optional<uint32_t>>(Bus::Instance().Thread(), make, ReadNumber);
    const bool isOurs = answer == kPrimaryOwner || answer == kAlreadyOwner;
    if (!isOurs) {
        PLATFORM_LOGE("this process does not get the bus name %{public}s: %{public}s", name.c_str(),
                      answer ? "another process owns it" : "the bus refuses it or does not answer");
    }
    return isOurs;
}

// Asks the daemon, which is exact also for a name that was claimed a moment ago.
std::string CurrentOwner(int32_t abilityId) {
    return CallAndWait<std::string>(
        Bus::Instance().Thread(),
        [abilityId](sd_bus* connection) {
            return NewDaemonCall(connection, "GetNameOwner", AbilityBusName(abilityId));
        },
        ReadText);
}

class AbilityManager : public ISystemAbilityManager {
  public:
    sptr<IRemoteObject> GetSystemAbility(int32_t systemAbilityId) override {
        if (systemAbilityId == APP_MGR_SERVICE_ID) {
            return AppManagerObject();
        }
        if (sptr<IRemoteObject> local = PublishedObject(systemAbilityId)) {
            return local;
        }
        const std::string owner = CurrentOwner(systemAbilityId);
        return owner.empty() ? nullptr : MakeSptr<RemoteProxy>(owner, AbilityPath(systemAbilityId));
    }
};

}  // namespace

std::vector<SystemAbility*> RegisteredAbilities() {
    Registry& registry = TheRegistry();
    const std::lock_guard lock(registry.mutex);
    return registry.abilities;
}

void WithdrawAbilities() {
    Registry& registry = TheRegistry();
    std::map<int32_t, sptr<IRemoteObject>> withdrawn;
    {
        const std::lock_guard lock(registry.mutex);
        withdrawn.swap(registry.published);
    }
    ServingThread& thread = Bus::Instance().Thread();
    for (const auto& [abilityId, object] : withdrawn) {
        thread.Post([&thread, id = abilityId] {
            AskDaemon(thread.Connection(), "ReleaseName", AbilityBusName(id),
                      [](int32_t, sd_bus_message*) {});
        });
    }
}

}  // namespace Linux

bool SystemAbility::MakeAndRegisterAbility(SystemAbility* ability) {
    if (ability == nullptr) {
        return false;
    }
    Linux::Registry& registry = Linux::TheRegistry();
    const std::lock_guard lock(registry.mutex);
    const bool isKnown = std::ranges::any_of(registry.abilities, [ability](const SystemAbility* known) {
        return known->GetSystemAbilityId() == ability->GetSystemAbilityId();
    });
    if (isKnown) {
        PLATFORM_LOGE("ability %{public}d is registered already", ability->GetSystemAbilityId());
        return false;
    }
    registry.abilities.push_back(ability);
    return true;
}

bool SystemAbility::AddSystemAbilityListener(int32_t systemAbilityId) {
    const auto listener = [this, systemAbilityId](bool available) {
        available ? OnAddSystemAbility(systemAbilityId, "") : OnRemoveSystemAbility(systemAbilityId, "");
    };
    return Linux::Bus::Instance().Abilities().Listen(systemAbilityId, listener);
}

bool SystemAbility::Publish(sptr<IRemoteObject> object) {
    const int32_t id = GetSystemAbilityId();
    auto* stub = dynamic_cast<IPCObjectStub*>(object.GetRefPtr());
    if (stub == nullptr) {
        PLATFORM_LOGE("ability %{public}d is not published: its object is not one of this process", id);
        return false;
    }
    // The object comes before the name, so that a process that sees the name finds the object.
    Linux::Bus& bus = Linux::Bus::Instance();
    if (!bus.Export(Linux::AbilityPath(id), stub)) {
        PLATFORM_LOGE("ability %{public}d is not published: its object cannot be served", id);
        return false;
    }
    if (!Linux::ClaimName(Linux::AbilityBusName(id))) {
        if (!Linux::PublishedObject(id)) {
            bus.Unexport(Linux::AbilityPath(id));
        }
        return false;
    }
    Linux::Registry& registry = Linux::TheRegistry();
    const std::lock_guard lock(registry.mutex);
    registry.published[id] = std::move(object);
    return true;
}

sptr<ISystemAbilityManager> SystemAbilityManagerClient::GetSystemAbilityManager() {
    static const sptr<ISystemAbilityManager> manager = MakeSptr<Linux::AbilityManager>();
    return manager;
}

}  // namespace KITE
