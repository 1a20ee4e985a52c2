#include "ipc/availability.h"

#include <array>
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <utility>

#include "ipc/bus.h"
#include "ipc/name_watch.h"
#include "ipc/outgoing_call.h"
#include "ipc/wire.h"
#include "runtime/guard.h"
#include "runtime/platform_log.h"

namespace KITE::Linux {

namespace {

constexpr std::array kProtectedAbilities{KELVRA_MANAGER_SERVICE_ID, kQuotaServiceId};

}  // namespace

Availability::Availability(ServingThread& thread) : thread_(thread) {}

Availability::~Availability() = default;

void Availability::Begin() {
    callbacks_ = std::make_unique<asio::thread_pool>(1);
    const std::lock_guard lock(mutex_);
    isDaemonAsked_ = true;
}

void Availability::FollowProtected() {
    for (const int32_t abilityId : kProtectedAbilities) {
        Follow(abilityId);
    }
    AskPid(kDaemonName, [this](std::optional<pid_t> pid) {
        const std::lock_guard lock(mutex_);
        daemonPid_ = pid;
    });
}

void Availability::Clear() {
    std::map<int32_t, Ability> dropped;
    const std::lock_guard lock(mutex_);
    dropped.swap(abilities_);
    daemonPid_.reset();
    isDaemonAsked_ = false;
}

bool Availability::Listen(int32_t abilityId, Listener listener) {
    return thread_.IsConnected() && thread_.Post([this, abilityId, listener = std::move(listener)] {
        Follow(abilityId);
        const std::lock_guard lock(mutex_);
        Ability& ability = abilities_[abilityId];
        ability.listeners.push_back(listener);
        if (!ability.owner.empty()) {
            Tell(listener, true);
        }
    });
}

void Availability::StopCallbacks() {
    if (callbacks_) {
        callbacks_->stop();
        callbacks_->join();
    }
}

std::string Availability::OwnerOf(int32_t abilityId) {
    {
        const std::lock_guard lock(mutex_);
        const auto found = abilities_.find(abilityId);
        if (found != abilities_.end()) {
            return found->second.owner;
        }
    }
    thread_.Post([this, abilityId] { Follow(abilityId); });
    return {};
}

std::optional<std::vector<pid_t>> Availability::ProtectedPids() const {
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

// The watch first, then the look-up: the watch tells what changes between them, and the look-up's answer then
// repeats what is known.
void Availability::Follow(int32_t abilityId) {
    {
        const std::lock_guard lock(mutex_);
        if (!abilities_.try_emplace(abilityId).second) {
            return;
        }
    }
    const std::string name = AbilityBusName(abilityId);
    auto watch = std::make_unique<NameWatch>(
        thread_.Connection(), name,
        [this, abilityId](const std::string& owner) { TakeOwner(abilityId, owner); });
    {
        const std::lock_guard lock(mutex_);
        abilities_[abilityId].watch = std::move(watch);
    }
    SendCall(thread_.Connection(), NewDaemonCall(thread_.Connection(), "GetNameOwner", name),
             [this, abilityId](int32_t status, sd_bus_message* reply) {
                 const char* owner = nullptr;
                 if (status == ERR_NONE && sd_bus_message_read(reply, "s", &owner) > 0) {
                     TakeOwner(abilityId, owner);
                 }
             });
}

void Availability::TakeOwner(int32_t abilityId, const std::string& owner) {
    {
        const std::lock_guard lock(mutex_);
        const auto found = abilities_.find(abilityId);
        if (found == abilities_.end() || found->second.owner == owner) {
            return;
        }
        Ability& ability = found->second;
        const std::string before = std::exchange(ability.owner, owner);
        ability.pid.reset();
        for (const Listener& listener : ability.listeners) {
            if (!before.empty()) {
                Tell(listener, false);
            }
            if (!owner.empty()) {
                Tell(listener, true);
            }
        }
    }
    if (owner.empty()) {
        return;
    }
    AskPid(owner, [this, abilityId, owner](std::optional<pid_t> pid) {
        const std::lock_guard lock(mutex_);
        const auto found = abilities_.find(abilityId);
        if (found != abilities_.end() && found->second.owner == owner) {
            found->second.pid = pid;
        }
    });
}

void Availability::AskPid(const std::string& busName, std::function<void(std::optional<pid_t>)> tell) {
    SendCall(thread_.Connection(), NewDaemonCall(thread_.Connection(), "GetConnectionUnixProcessID", busName),
             [busName, tell = std::move(tell)](int32_t status, sd_bus_message* reply) {
                 uint32_t pid = 0;
                 const bool isTold = status == ERR_NONE && sd_bus_message_read(reply, "u", &pid) > 0;
                 if (!isTold) {
                     PLATFORM_LOGE("the bus does not tell the pid of %{public}s, status %{public}d",
                                   busName.c_str(), status);
                 }
                 tell(isTold ? std::optional(static_cast<pid_t>(pid)) : std::nullopt);
             });
}

void Availability::Tell(const Listener& listener, bool available) {
    asio::post(*callbacks_, [listener, available] {
        RunGuarded("a listener to an ability's coming and going", [&] { listener(available); });
    });
}

std::optional<std::vector<pid_t>> BusProtectedPids() {
    return Bus::Instance().Abilities().ProtectedPids();
}

}  // namespace KITE::Linux
