#pragma once

#include <sys/types.h>

#include <asio/thread_pool.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ipc/name_watch.h"
#include "ipc/serving_thread.h"
#include "visibility.h"

namespace KITE::Linux {

// Which abilities are there: who owns their bus names, followed from the daemon's own announcements.
class KITE_API Availability {
  public:
    using Listener = std::function<void(bool available)>;

    explicit Availability(ServingThread& thread) : thread_(thread) {}

    // Starts the callback thread. Before the serving thread starts.
    void Begin() { callbacks_.emplace(1); }
    // Asks for what ProtectedPids tells. Once the serving thread has started, on it.
    void FollowProtected();
    // Forgets everything. Serving thread, before the connection is closed.
    void Clear();

    // Calls the listener on the callback thread, one call at a time, when the ability comes or goes, and at
    // once if it is there. A new owner is a removal and an addition. False without a bus. Any thread.
    bool Listen(int32_t abilityId, Listener listener);
    // Ends the callback thread: no listener runs afterwards. Not on that thread.
    void StopCallbacks();

    // The unique name of the owner; empty when there is none, and for an ability that has neither a listener
    // nor a name that FollowProtected follows. Any thread.
    std::string OwnerOf(int32_t abilityId);

    // Processes that must never be treated: the bus daemon and the owners of the quota service's and the
    // Kelvra manager's names. Absent while the bus has not told the pid of such an owner. Any thread.
    std::optional<std::vector<pid_t>> ProtectedPids() const;

  private:
    // A bus name: an ability's, or the daemon's own.
    struct Followed {
        std::unique_ptr<NameWatch> watch;  // belongs to the serving thread
        std::string owner;
        std::optional<pid_t> pid;
        std::vector<Listener> listeners;
    };

    void Follow(const std::string& name);
    void TakeOwner(const std::string& name, const std::string& owner);
    void AskPid(const std::string& name, const std::string& owner);
    void Tell(const Listener& listener, bool available);

    ServingThread& thread_;
    std::optional<asio::thread_pool> callbacks_;  // of one thread

    mutable std::mutex mutex_;  // guards what follows
    std::map<std::string, Followed> followed_;
};

}  // namespace KITE::Linux
