#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include "ipc/handles.h"
#include "ipc/limits.h"
#include "ipc/serving_thread.h"
#include "remote_object.h"
#include "runtime/platform_log.h"

// Calls of methods of other processes and of the bus daemon.
namespace KITE::Linux {

// Receives what came of a call: ERR_NONE with the reply, or one of the transport's errors with null.
using CallDone = std::function<void(int32_t status, sd_bus_message* reply)>;

// Makes a call on the serving thread; null when it cannot be made.
using CallMaker = std::function<MessageHandle(sd_bus*)>;

// A method call to be filled in; null without a connection or a valid name and path. On the serving thread.
KITE_API MessageHandle NewCall(sd_bus* connection, const std::string& destination, const std::string& path,
                               const std::string& interface, const std::string& member);
// A call of the daemon about a bus name.
MessageHandle NewDaemonCall(sd_bus* connection, const std::string& member, const std::string& name);

// What the daemon answers: absent, or empty, where there was no answer.
std::optional<uint32_t> ReadNumber(int32_t status, sd_bus_message* reply);
std::string ReadText(int32_t status, sd_bus_message* reply);

// Sends the call; null is refused. `done` runs exactly once, before this returns if it cannot be sent. Both
// on the serving thread.
KITE_API void SendCall(sd_bus* connection, MessageHandle call, CallDone done);
// Sends the daemon a call about a bus name.
void AskDaemon(sd_bus* connection, const std::string& member, const std::string& name, CallDone done);

// Has the serving thread make and send a call, and waits for the answer, kCallTimeout at most. Returns what
// `read` makes of it; without an answer, of ERR_TIMED_OUT, ERR_DEAD_OBJECT or ERR_REFUSED and null. Neither
// function may refer to the waiting thread's stack, since that may give up before they run.
template <typename T>
T CallAndWait(ServingThread& thread, CallMaker make, T (*read)(int32_t status, sd_bus_message* reply)) {
    if (thread.IsCurrent()) {
        PLATFORM_LOGE("a call is refused: the thread that serves the bus would wait for itself");
        return read(ERR_REFUSED, nullptr);
    }
    const auto promise = std::make_shared<std::promise<T>>();
    std::future<T> answer = promise->get_future();
    const bool isPosted = thread.Post([&thread, make = std::move(make), read, promise] {
        SendCall(thread.Connection(), make(thread.Connection()),
                 [read, promise](int32_t status, sd_bus_message* reply) {
                     promise->set_value(read(status, reply));
                 });
    });
    if (!isPosted) {
        return read(ERR_DEAD_OBJECT, nullptr);
    }
    const bool isThere = answer.wait_for(kCallTimeout) == std::future_status::ready;
    return isThere ? answer.get() : read(ERR_TIMED_OUT, nullptr);
}

}  // namespace KITE::Linux
