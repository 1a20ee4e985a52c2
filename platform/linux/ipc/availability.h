#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ipc/worker.h"
#include "visibility.h"

namespace KITE::Linux {

class Bus;
class NameWatch;

// Id of the quota service, whose process the platform never treats.
inline constexpr int32_t kQuotaServiceId = 1913;

// Who owns the bus names of other abilities, followed from the daemon's own announcements.
class KITE_API AbilityNames {
  public:
    using Listener = std::function<void(bool available)>;

    explicit AbilityNames(Bus& bus);
    ~AbilityNames();

    // Follows the names of the platform's own services. Called when the bus starts.
    void Begin();
    // Forgets everything. Serving thread, before the connection is closed.
    void Clear();

    // Calls the listener on the callback thread, one call at a time, whenever the ability comes or goes, and
    // at once if it is there. A new owner is a removal and an addition. False when the bus is not there. Any
    // thread.
    bool Listen(int32_t abilityId, Listener listener);
    // Ends the callback thread: no listener runs afterwards. Not on that thread.
    void StopCallbacks();

    // The unique name of the owner, empty when there is none or it is not known yet. The first question for
    // an id starts following it. Any thread.
    std::string OwnerOf(int32_t abilityId);

    // See BusProtectedPids.
    std::optional<std::vector<pid_t>> ProtectedPids() const;

  private:
    struct Ability {
        std::unique_ptr<NameWatch> watch;  // belongs to the serving thread
        std::string owner;
        std::optional<pid_t> pid;
        std::vector<Listener> listeners;
    };

    void Track(int32_t abilityId);
    void OnOwner(int32_t abilityId, const std::string& owner);
    void AskPid(int32_t abilityId, const std::string& owner);
    void Notify(const Ability& ability, bool available);

    Bus& bus_;
    Worker callbacks_;

    mutable std::mutex mutex_;  // guards what follows
    std::map<int32_t, Ability> abilities_;
    bool isDaemonAsked_ = false;
    std::optional<pid_t> daemonPid_;
};

}  // namespace KITE::Linux
