#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>

#include "base/unique_fd.h"

namespace KITE::Linux {

// Calls a C library's release function on the pointer that a handle gives up.
template <auto Release>
struct Releaser {
    template <typename T>
    void operator()(T* object) const noexcept {
        Release(object);
    }
};

// The libraries' reference counts are not atomic: a handle is made, copied and dropped on the thread that
// owns the connection.
using BusHandle = std::unique_ptr<sd_bus, Releaser<sd_bus_flush_close_unref>>;
using MessageHandle = std::unique_ptr<sd_bus_message, Releaser<sd_bus_message_unref>>;
using SlotHandle = std::unique_ptr<sd_bus_slot, Releaser<sd_bus_slot_unref>>;
using EventHandle = std::unique_ptr<sd_event, Releaser<sd_event_unref>>;
using EventSourceHandle = std::unique_ptr<sd_event_source, Releaser<sd_event_source_unref>>;

}  // namespace KITE::Linux
