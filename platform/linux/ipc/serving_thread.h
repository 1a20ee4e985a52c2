#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include "base/unique_fd.h"
#include "ipc/handles.h"
#include "visibility.h"

namespace KITE::Linux {

// The connection to the message bus, and the one thread that serves it.
//
// An sd-bus connection belongs to one thread, and the reference counts of its messages are not atomic. So
// everything that touches the connection runs here, handed over with Post. Work that may wait must not: every
// request, every reply and every ability's coming and going would wait with it.
//
// When the bus goes away, the connection is not built again: pending calls end with ERR_DEAD_OBJECT, later
// ones at once, and the handler given to Start is called.
class KITE_API ServingThread {
  public:
    using Work = std::function<void()>;

    // `closing` runs last before the connection is closed, to drop what holds a part of the connection.
    explicit ServingThread(Work closing);
    ~ServingThread() { Stop(); }

    // Connects to the address, the system bus when it is empty, and starts the thread. `lost` is called once,
    // on this thread, when the bus goes away. Fails when the bus cannot be reached or refuses the user.
    std::error_code Start(const std::string& address, Work lost);

    // Runs what was posted, sends what is still to be sent, closes the connection and ends the thread; calls
    // without an answer end with ERR_DEAD_OBJECT. Does nothing when the thread does not run. Another thread.
    void Stop();

    // Runs the work after what was posted before. False, with the work dropped, without a thread. Any thread.
    bool Post(Work work);

    // Likewise, and waits until it has run. At once on this thread itself.
    bool Run(const Work& work);

    bool IsCurrent() const;

    // True from Start until the bus is lost or the thread stops. Any thread.
    bool IsConnected() const { return connected_; }

    // Null once the connection is closed. On this thread only.
    sd_bus* Connection() const { return connection_.get(); }

  private:
    std::error_code PrepareLoop();
    void Serve();
    void RunPosted();
    void LoseBus();
    void Close();

    const Work closing_;
    Work lost_;
    std::thread thread_;
    std::atomic<bool> connected_{false};
    const UniqueFd wake_;

    // Belong to the thread while it runs.
    EventHandle event_;
    BusHandle connection_;

    std::mutex mutex_;  // guards what follows
    std::deque<Work> posted_;
    bool accepting_ = false;
};

}  // namespace KITE::Linux
