#pragma once

#include <functional>
#include <string>

#include "ipc/handles.h"

namespace KITE::Linux {

// Tells each change of a bus name's owner, until it is destroyed. Belongs to the serving thread.
class NameWatch {
  public:
    // The new owner's unique name; empty when the name has none any more. May destroy the watch.
    using Changed = std::function<void(const std::string& newOwner)>;

    // Asks the daemon for the watch without waiting. What is asked afterwards is answered afterwards, so that
    // a look-up of the owner misses no change. A daemon that refuses is logged, and nothing is told then.
    NameWatch(sd_bus* connection, std::string name, Changed changed);
    NameWatch(const NameWatch&) = delete;
    NameWatch& operator=(const NameWatch&) = delete;

  private:
    static int OnChanged(sd_bus_message* message, void* self, sd_bus_error* error);
    static int OnInstalled(sd_bus_message* message, void* self, sd_bus_error* error);

    const std::string name_;
    const Changed changed_;
    SlotHandle slot_;
};

}  // namespace KITE::Linux
