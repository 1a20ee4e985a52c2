#include "ipc/bus.h"

#include "ipc/bus_connection.h"

namespace KITE::Linux {

Bus& Bus::Instance() {
    static Bus bus;
    return bus;
}

Bus::Bus()
    : thread_([this] {
          objects_.Clear();
          abilities_.Clear();
      }),
      abilities_(thread_),
      objects_(thread_) {}

std::error_code Bus::Start(const std::string& address, std::function<void()> lost) {
    objects_.Begin();
    abilities_.Begin();
    const std::error_code error = thread_.Start(address, std::move(lost));
    // Waited for, so that ProtectedPids knows from now on what it does not know yet.
    thread_.Run([this] { abilities_.FollowProtected(); });
    return error;
}

void Bus::StopServing() {
    thread_.Run([this] { objects_.Withdraw(); });
    objects_.StopDumps();
    abilities_.StopCallbacks();
}

void Bus::Stop() {
    StopServing();
    thread_.Stop();
}

bool Bus::Export(const std::string& path, sptr<IPCObjectStub> object) {
    bool isExported = false;
    return thread_.Run([&] { isExported = objects_.Export(path, object); }) && isExported;
}

void Bus::Unexport(const std::string& path) {
    thread_.Run([&] { objects_.Unexport(path); });
}

std::error_code BusConnection::Open(const std::string& address) {
    return Bus::Instance().Start(address);
}

BusConnection::~BusConnection() {
    Bus::Instance().Stop();
}

}  // namespace KITE::Linux
