#include "ipc/bus_connection.h"

#include <utility>

#include "ipc/bus.h"
#include "runtime/settings.h"

namespace KITE::Linux {

bool BusConnection::Open(const std::string& address, std::string& error) {
    Settings settings = GetSettings();
    settings.busAddress = address;
    SetSettings(std::move(settings));
    return Bus::Instance().Start(error);
}

BusConnection::~BusConnection() {
    Bus::Instance().Stop();
}

}  // namespace KITE::Linux
