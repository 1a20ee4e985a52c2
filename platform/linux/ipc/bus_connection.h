#pragma once

#include <string>
#include <system_error>

#include "visibility.h"

namespace KITE::Linux {

// The connection to the message bus of a program that calls abilities and is no host. While it is there,
// SystemAbilityManagerClient finds the abilities and their remote objects can be called:
//
//     BusConnection connection;
//     if (const std::error_code error = connection.Open("")) { ... error.message() ... }
//     sptr<IRemoteObject> object =
//         SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager()->GetSystemAbility(1913);
//
// Calls wait for their answer, 5 s at most. When the bus goes away they end with ERR_DEAD_OBJECT. A process
// has one connection at a time, and none besides a host's.
class KITE_API BusConnection {
  public:
    BusConnection() = default;
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;
    // Ends the thread and closes the connection; calls without an answer end with ERR_DEAD_OBJECT.
    ~BusConnection();

    // Connects to the address, the system bus when it is empty, and starts the thread that serves the
    // connection. Fails when the bus cannot be reached or refuses the user. Called once.
    std::error_code Open(const std::string& address);
};

}  // namespace KITE::Linux
