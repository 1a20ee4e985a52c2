#include "ipc/availability.h"

#include <array>
#include <utility>

#include "ipc/bus.h"
#include "ipc/name_watch.h"
#include "ipc/wire.h"
#include "runtime/platform_log.h"
#include "system_ability.h"

namespace KITE::Linux {

namespace {

constexpr std::array kProtectedAbilities{KELVRA_MANAGER_SERVICE_ID, kQuotaServiceId};

bool IsProtected(int32_t abilityId) {
    return abilityId == kProtectedAbilities[0] || abilityId == kProtectedAbilities[1];
}

std::optional<pid_t> PidFrom(int32_t status, sd_bus_message* reply) {
    uint32_t pid = 0;
    if (status != ERR_NONE || sd_bus_message_read(reply, "u", &pid) <= 0) {
        return std::nullopt;
    }
    return static_cast<pid_t>(pid);
}

}  // namespace

AbilityNames::AbilityNames(Bus& bus) : bus_(bus) {}

AbilityNames::~AbilityNames() = default;

void AbilityNames::Begin() {
    callbacks_.Start();
    {
        const std::lock_guard lock(mutex_);
        isDaemonAsked_ = true;
    }
    bus_.Post([this] {
        for (const int32_t abilityId : kProtectedAbilities) {
            Track(abilityId);
        }
        bus_.Call(bus_.NewDaemonCall("GetConnectionUnixProcessID", kDaemonName),
                  [this](int32_t status, sd_bus_message* reply) {
                      const std::lock_guard lock(mutex_);
                      daemonPid_ = PidFrom(status, reply);
                  });
    });
}

void AbilityNames::Clear() {
    std::map<int32_t, Ability> dropped;
    const std::lock_guard lock(mutex_);
    dropped.swap(abilities_);
    daemonPid_.reset();
    isDaemonAsked_ = false;
}

bool AbilityNames::Listen(int32_t abilityId, Listener listener) {
    return bus_.IsConnected() && bus_.Post([this, abilityId, listener = std::move(listener)] {
        Track(abilityId);
        const std::lock_guard lock(mutex_);
        Ability& ability = abilities_[abilityId];
        ability.listeners.push_back(listener);
        if (!ability.owner.empty()) {
            callbacks_.Submit([listener] { listener(true); });
        }
    });
}

void AbilityNames::StopCallbacks() {
    callbacks_.Stop();
}

std::string AbilityNames::OwnerOf(int32_t abilityId) {
    {
        const std::lock_guard lock(mutex_);
        const auto found = abilities_.find(abilityId);
        if (found != abilities_.end()) {
            return found->second.owner;
        }
    }
    bus_.Post([this, abilityId] { Track(abilityId); });
    return {};
}

std::optional<std::vector<pid_t>> AbilityNames::ProtectedPids() const {
    const std::lock_guard lock(mutex_);
    std::vector<pid_t> pids;
    if (isDaemonAsked_ && !daemonPid_) {
        return std::nullopt;
    }
    if (daemonPid_) {
        pids.push_back(*daemonPid_);
    }
    for (const int32_t abilityId : kProtectedAbilities) {
        const auto found = abilities_.find(abilityId);
        if (found == abilities_.end() || found->second.owner.empty()) {
            continue;
        }
        if (!found->second.pid) {
            return std::nullopt;
        }
        pids.push_back(*found->second.pid);
    }
    return pids;
}

// The watch first, then the look-up: what changes between them is told by the watch, and the look-up's answer
// then repeats what is known.
void AbilityNames::Track(int32_t abilityId) {
    {
        const std::lock_guard lock(mutex_);
        if (!abilities_.try_emplace(abilityId).second) {
            return;
        }
    }
    const std::string name = AbilityBusName(abilityId);
    auto watch = std::make_unique<NameWatch>(
        bus_.Connection(), name, [this, abilityId](const std::string& owner) { OnOwner(abilityId, owner); },
        [abilityId] { PLATFORM_LOGE("cannot follow the availability of ability %{public}d", abilityId); });
    {
        const std::lock_guard lock(mutex_);
        abilities_[abilityId].watch = std::move(watch);
    }
    bus_.Call(bus_.NewDaemonCall("GetNameOwner", name),
              [this, abilityId](int32_t status, sd_bus_message* reply) {
                  const char* owner = nullptr;
                  if (status == ERR_NONE && sd_bus_message_read(reply, "s", &owner) > 0) {
                      OnOwner(abilityId, owner);
                  }
              });
}

void AbilityNames::OnOwner(int32_t abilityId, const std::string& owner) {
    {
        const std::lock_guard lock(mutex_);
        const auto found = abilities_.find(abilityId);
        if (found == abilities_.end() || found->second.owner == owner) {
            return;
        }
        Ability& ability = found->second;
        if (!ability.owner.empty()) {
            Notify(ability, false);
        }
        ability.owner = owner;
        ability.pid.reset();
        if (!owner.empty()) {
            Notify(ability, true);
        }
    }
    if (!owner.empty() && IsProtected(abilityId)) {
        AskPid(abilityId, owner);
    }
}

void AbilityNames::AskPid(int32_t abilityId, const std::string& owner) {
    bus_.Call(bus_.NewDaemonCall("GetConnectionUnixProcessID", owner),
              [this, abilityId, owner](int32_t status, sd_bus_message* reply) {
                  const std::lock_guard lock(mutex_);
                  const auto found = abilities_.find(abilityId);
                  if (found != abilities_.end() && found->second.owner == owner) {
                      found->second.pid = PidFrom(status, reply);
                      if (!found->second.pid) {
                          PLATFORM_LOGE("the bus does not tell the process of ability %{public}d", abilityId);
                      }
                  }
              });
}

void AbilityNames::Notify(const Ability& ability, bool available) {
    for (const Listener& listener : ability.listeners) {
        callbacks_.Submit([listener, available] { listener(available); });
    }
}

}  // namespace KITE::Linux
