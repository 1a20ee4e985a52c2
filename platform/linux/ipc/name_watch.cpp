#include "ipc/name_watch.h"

#include <string_view>
#include <utility>

#include "ipc/wire.h"
#include "runtime/guard.h"
#include "runtime/platform_log.h"

namespace KITE::Linux {

namespace {

// A match does not keep out a signal that another client addresses to us, which could name any owner.
bool IsFromDaemon(sd_bus_message* message) {
    const char* sender = sd_bus_message_get_sender(message);
    return sender != nullptr && std::string_view(sender) == kDaemonName;
}

}  // namespace

NameWatch::NameWatch(sd_bus* connection, std::string name, Changed changed)
    : name_(std::move(name)), changed_(std::move(changed)) {
    const std::string rule = std::string("type='signal',sender='") + kDaemonName + "',path='" + kDaemonPath +
                             "',interface='" + kDaemonName + "',member='NameOwnerChanged',arg0='" + name_ +
                             "'";
    sd_bus_slot* slot = nullptr;
    sd_bus_add_match_async(connection, &slot, rule.c_str(), &OnChanged, &OnInstalled, this);
    slot_.reset(slot);
}

int NameWatch::OnChanged(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    if (IsFromDaemon(message) && sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) >= 0) {
        // A copy, since the call may destroy the watch.
        const Changed changed = static_cast<NameWatch*>(self)->changed_;
        RunGuarded("what follows from a name's new owner", [&] { changed(newOwner); });
    }
    return 0;
}

int NameWatch::OnInstalled(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    if (sd_bus_message_is_method_error(message, nullptr) > 0) {
        PLATFORM_LOGE("the bus will not tell when the owner of %{public}s changes: %{public}s",
                      static_cast<NameWatch*>(self)->name_.c_str(), sd_bus_message_get_error(message)->name);
    }
    return 0;
}

}  // namespace KITE::Linux
