#include "ipc/bus_connection.h"

#include "ipc/bus.h"

namespace KITE::Linux {

std::error_code BusConnection::Open(const std::string& address) {
    return Bus::Instance().Start(address);
}

BusConnection::~BusConnection() {
    Bus::Instance().Stop();
}

}  // namespace KITE::Linux
