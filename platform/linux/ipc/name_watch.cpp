#include "ipc/name_watch.h"

#include <string_view>
#include <utility>

#include "ipc/wire.h"
#include "runtime/guard.h"

namespace KITE::Linux {

NameWatch::NameWatch(sd_bus* connection, const std::string& name, Changed changed, Failed failed)
    : changed_(std::move(changed)), failed_(std::move(failed)) {
    const std::string rule = std::string("type='signal',sender='") + kDaemonName + "',path='" + kDaemonPath +
                             "',interface='" + kDaemonName + "',member='NameOwnerChanged',arg0='" + name +
                             "'";
    sd_bus_slot* slot = nullptr;
    const int result =
        sd_bus_add_match_async(connection, &slot, rule.c_str(), &OnChanged, &OnInstalled, this);
    slot_.reset(slot);
    if (result < 0) {
        failed_();
    }
}

namespace {

// A match holds only what the bus broadcasts. A signal that a client addresses to us reaches it too, whatever
// sender the match names, so that anybody could tell us who owns a name.
bool IsFromTheDaemon(sd_bus_message* message) {
    const char* sender = sd_bus_message_get_sender(message);
    return sender != nullptr && std::string_view(sender) == kDaemonName;
}

}  // namespace

// Both callbacks work on copies, since the call may destroy the watch.

int NameWatch::OnChanged(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    if (IsFromTheDaemon(message) && sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) >= 0) {
        const Changed changed = static_cast<NameWatch*>(self)->changed_;
        RunGuarded("a name watch", [&] { changed(newOwner); });
    }
    return 0;
}

int NameWatch::OnInstalled(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    if (sd_bus_message_is_method_error(message, nullptr) > 0) {
        const Failed failed = static_cast<NameWatch*>(self)->failed_;
        RunGuarded("a name watch", failed);
    }
    return 0;
}

}  // namespace KITE::Linux
