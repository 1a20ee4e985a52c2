#pragma once

#include <functional>
#include <string>

#include "ipc/handles.h"

namespace KITE::Linux {

// Tells each change of a bus name's owner, until it is destroyed. Belongs to the serving thread. Either
// callback may destroy the watch.
class NameWatch {
  public:
    // The new owner's unique name; empty when the name has none any more.
    using Changed = std::function<void(const std::string& newOwner)>;
    // The bus did not take the watch: nothing will be told.
    using Failed = std::function<void()>;

    // Asks the daemon for the watch without waiting. What is asked afterwards is answered afterwards, so that
    // a look-up of the owner misses no change.
    NameWatch(sd_bus* connection, const std::string& name, Changed changed, Failed failed);
    NameWatch(const NameWatch&) = delete;
    NameWatch& operator=(const NameWatch&) = delete;

  private:
    static int OnChanged(sd_bus_message* message, void* self, sd_bus_error* error);
    static int OnInstalled(sd_bus_message* message, void* self, sd_bus_error* error);

    const Changed changed_;
    const Failed failed_;
    SlotHandle slot_;
};

}  // namespace KITE::Linux
