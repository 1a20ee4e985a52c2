#pragma once

#include <functional>
#include <string>

#include "ipc/availability.h"
#include "ipc/object_server.h"
#include "ipc/serving_thread.h"

namespace KITE::Linux {

// This process on the message bus: its serving thread, its objects, and what it knows of others' abilities.
class KITE_API Bus {
  public:
    // The process's own; others exist in tests only.
    static Bus& Instance();

    Bus();
    ~Bus() { Stop(); }

    // See ServingThread::Start; also starts the other threads. May be called again after Stop.
    std::error_code Start(
        const std::string& address, std::function<void()> lost = [] {});

    // Withdraws the objects, waits for a dump that is being written and ends the calls of listeners. Requests
    // that still wait get an error. Calls to others go on working. Not on the serving thread.
    void StopServing();

    // StopServing, then stops the serving thread, which see. Idempotent.
    void Stop();

    // Makes an object reachable at a path, in place of the one that is there. An object has one path at most.
    // False when the path is not valid or the bus does not serve (any more). Any thread.
    bool Export(const std::string& path, sptr<IPCObjectStub> object);
    // Takes the object back: its waiting requests get an error. Any thread.
    void Unexport(const std::string& path);

    ServingThread& Thread() { return thread_; }
    Availability& Abilities() { return abilities_; }

  private:
    ServingThread thread_;
    Availability abilities_;
    ObjectServer objects_;
};

}  // namespace KITE::Linux
