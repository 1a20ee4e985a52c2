#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ipc/handles.h"
#include "remote_object.h"

namespace KITE::Linux {

class AbilityNames;
class ObjectServer;

// The process's connection to the message bus, and the one thread that serves it.
//
// An sd-bus object belongs to one thread. Everything that touches the connection runs on the serving thread;
// other threads hand work over with Post, which wakes the thread's event loop. Nothing that may wait runs on
// it, so requests of other objects, replies and availability never queue behind one another.
//
// When the bus goes away, the connection is not built again: pending calls end with ERR_DEAD_OBJECT, later
// ones at once, and the lost handler is called.
class KITE_API Bus {
  public:
    // Receives the outcome of a call: ERR_NONE with the reply, or one of the transport's errors with null.
    using Reply = std::function<void(int32_t status, sd_bus_message* reply)>;

    // The process's own; others exist in tests only.
    static Bus& Instance();

    Bus();
    ~Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    // Called once, on the serving thread, when the bus goes away. Set it before Start.
    void SetLostHandler(std::function<void()> handler) { lostHandler_ = std::move(handler); }

    // Connects to the address in the settings and starts the serving thread. False, with the reason, when the
    // bus cannot be reached or refuses the caller.
    bool Start(std::string& error);

    // Gives back the names, withdraws the objects and waits for a dump that is being written. Requests that
    // still wait get an error. Calls to others go on working. Not on the serving thread.
    void StopServing();

    // StopServing, then sends what is still to be sent, ends the thread and closes the connection. Work that
    // was posted has run when this returns; calls without an answer end with ERR_DEAD_OBJECT. Idempotent. Not
    // on the serving thread.
    void Stop();

    // Runs the work on the serving thread, after what was posted before. False, with the work dropped, when
    // the thread does not run. Any thread.
    bool Post(std::function<void()> work);

    // Runs the work on the serving thread and waits until it has run. Any thread, the serving one included.
    bool Run(const std::function<void()>& work);

    bool OnServingThread() const;

    // True from Start until the bus is lost or stopped. Any thread.
    bool IsConnected() const { return connected_; }

    // Makes an object reachable at a path, in place of the one that is there. An object has one path at most.
    // False when the path is not valid or the bus does not serve (any more). Any thread.
    bool Export(const std::string& path, sptr<IPCObjectStub> object);
    // Takes the object back: its waiting requests get an error. Any thread.
    void Unexport(const std::string& path);

    // Makes this process the owner of a bus name; true when it is already. False, with the reason, when
    // another process owns it or the bus refuses. Any thread but the serving one; waits for the answer.
    bool ClaimName(const std::string& name, std::string& error);

    AbilityNames& Names() { return *names_; }

    // Serving thread only from here on.

    // Null once the connection is closed.
    sd_bus* Connection() const { return connection_.get(); }
    // A method call to be filled in; null when a name or the path is not valid.
    MessageHandle NewCall(const std::string& destination, const std::string& path,
                          const std::string& interface, const std::string& member) const;
    MessageHandle NewDaemonCall(const std::string& member, const std::string& name) const;
    // Sends the call; `done` runs exactly once, on the serving thread, at once if the call cannot be sent.
    void Call(MessageHandle message, Reply done);

  private:
    class PendingCall;

    bool Connect(std::string& error);
    bool PrepareLoop(std::string& error);
    void Serve();
    void Close();
    void RunPosted();
    void OnLost();
    void ReleaseNames();

    std::function<void()> lostHandler_;
    std::unique_ptr<AbilityNames> names_;
    std::unique_ptr<ObjectServer> objects_;

    // Belong to the serving thread while it runs.
    EventHandle event_;
    BusHandle connection_;
    SlotHandle lostMatch_;
    EventSourceHandle wakeSource_;
    std::set<std::string> claimedNames_;
    bool claimsRefused_ = false;

    std::atomic<bool> connected_{false};
    std::thread thread_;

    std::mutex mutex_;  // guards what follows
    UniqueFd wakeFd_;
    std::deque<std::function<void()>> posted_;
    bool accepting_ = false;
};

// Processes that must never be treated: the bus daemon and the owners of the quota service's and the Kelvra
// manager's names. Absent while the bus has not told the pid of such an owner. Any thread.
KITE_API std::optional<std::vector<pid_t>> BusProtectedPids();

}  // namespace KITE::Linux
