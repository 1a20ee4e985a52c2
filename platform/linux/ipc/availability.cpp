#include "ipc/availability.h"

#include <array>
#include <asio/post.hpp>
#include <utility>

#include "ipc/outgoing_call.h"
#include "ipc/wire.h"
#include "runtime/guard.h"
#include "runtime/platform_log.h"

namespace KITE::Linux {

namespace {

// The names whose owners must never be treated.
std::array<std::string, 3> ProtectedNames() {
    return {kDaemonName, AbilityBusName(KELVRA_MANAGER_SERVICE_ID), AbilityBusName(kQuotaServiceId)};
}

}  // namespace

void Availability::FollowProtected() {
    for (const std::string& name : ProtectedNames()) {
        Follow(name);
    }
}

bool Availability::Listen(int32_t abilityId, Listener listener) {
    const std::string name = AbilityBusName(abilityId);
    return thread_.IsConnected() && thread_.Post([this, name, listener = std::move(listener)] {
        Follow(name);
        const std::lock_guard lock(mutex_);
        followed_[name].listeners.push_back(listener);
        if (!followed_[name].owner.empty()) {
            Tell(listener, true);
        }
    });
}

std::string Availability::OwnerOf(int32_t abilityId) {
    const std::lock_guard lock(mutex_);
    const auto found = followed_.find(AbilityBusName(abilityId));
    return found == followed_.end() ? std::string() : found->second.owner;
}

std::optional<std::vector<pid_t>> Availability::ProtectedPids() const {
    const std::lock_guard lock(mutex_);
    std::vector<pid_t> pids;
    for (const std::string& name : ProtectedNames()) {
        const auto found = followed_.find(name);
        // An ability need not be there. The daemon is, but its answer may still be on its way.
        const bool isThere =
            found != followed_.end() && (name == kDaemonName || !found->second.owner.empty());
        if (isThere && !found->second.pid) {
            return std::nullopt;
        }
        if (isThere) {
            pids.push_back(*found->second.pid);
        }
    }
    return pids;
}

// The watch first, then the look-up, so that no change between them is missed.
void Availability::Follow(const std::string& name) {
    {
        const std::lock_guard lock(mutex_);
        const auto [entry, isNew] = followed_.try_emplace(name);
        if (!isNew) {
            return;
        }
        entry->second.watch = std::make_unique<NameWatch>(
            thread_.Connection(), name, [this, name](const std::string& owner) { TakeOwner(name, owner); });
    }
    AskDaemon(thread_.Connection(), "GetNameOwner", name,
              [this, name](int32_t status, sd_bus_message* reply) {
                  if (const std::string owner = ReadText(status, reply); !owner.empty()) {
                      TakeOwner(name, owner);
                  }
              });
}

void Availability::TakeOwner(const std::string& name, const std::string& owner) {
    {
        const std::lock_guard lock(mutex_);
        const auto found = followed_.find(name);
        if (found == followed_.end() || found->second.owner == owner) {
            return;
        }
        const std::string before = std::exchange(found->second.owner, owner);
        found->second.pid.reset();
        for (const Listener& listener : found->second.listeners) {
            if (!before.empty()) {
                Tell(listener, false);
            }
            if (!owner.empty()) {
                Tell(listener, true);
            }
        }
    }
    if (!owner.empty()) {
        AskPid(name, owner);
    }
}

void Availability::AskPid(const std::string& name, const std::string& owner) {
    AskDaemon(thread_.Connection(), "GetConnectionUnixProcessID", owner,
              [this, name, owner](int32_t status, sd_bus_message* reply) {
                  const std::optional<uint32_t> pid = ReadNumber(status, reply);
                  if (!pid) {
                      PLATFORM_LOGE("the bus does not tell which process owns %{public}s: status %{public}d",
                                    name.c_str(), status);
                      return;
                  }
                  const std::lock_guard lock(mutex_);
                  const auto found = followed_.find(name);
                  if (found != followed_.end() && found->second.owner == owner) {
                      found->second.pid = static_cast<pid_t>(*pid);
                  }
              });
}

void Availability::Tell(const Listener& listener, bool available) {
    asio::post(*callbacks_, [listener, available] {
        RunGuarded("a listener to an ability's coming and going", [&] { listener(available); });
    });
}

void Availability::StopCallbacks() {
    if (callbacks_) {
        callbacks_->stop();
        callbacks_->join();
    }
}

void Availability::Clear() {
    std::map<std::string, Followed> dropped;
    const std::lock_guard lock(mutex_);
    dropped.swap(followed_);
}

}  // namespace KITE::Linux
