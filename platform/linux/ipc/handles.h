#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>

#include "base/result.h"

namespace KITE::Linux {

// Calls a C library's release function on the pointer that a handle gives up.
template <auto Release>
struct Releaser {
    template <typename T>
    void operator()(T* object) const noexcept {
        Release(object);
    }
};

// Made and dropped on the thread that owns the connection: the libraries' reference counts are not atomic.
using BusHandle = std::unique_ptr<sd_bus, Releaser<sd_bus_flush_close_unref>>;
using MessageHandle = std::unique_ptr<sd_bus_message, Releaser<sd_bus_message_unref>>;
using SlotHandle = std::unique_ptr<sd_bus_slot, Releaser<sd_bus_slot_unref>>;
using EventHandle = std::unique_ptr<sd_event, Releaser<sd_event_unref>>;

// Makes calls of these libraries until one fails, and returns its error.
template <typename... Calls>
std::error_code InOrder(Calls&&... calls) {
    int result = 0;
    static_cast<void>((((result = calls()) >= 0) && ...));
    return result < 0 ? ErrorOf(result) : std::error_code();
}

}  // namespace KITE::Linux
