#pragma once

#include <optional>
#include <string>

#include "integration/bus_client.h"
#include "integration/process.h"

namespace KITE::Benchmarks {

// A process that answers each request with zeroes: what sd-bus and the daemon cost by themselves. Only a
// client with the Kelvra manager's uid reaches it.
class Echo {
  public:
    // Throws when it does not start.
    Echo(const std::string& address, const std::string& directory, size_t replySize);

    // Waits for the answer. False when there was none of that size.
    bool Call(Integration::BusClient& client, const MessageParcel& request) const;

  private:
    const size_t replySize_;
    Integration::LogFile output_;
    Integration::Process process_;
    std::string name_;
};

// The exit status when this process was started to be the echo, else nothing.
std::optional<int> RunAsEcho(int argc, char** argv);

}  // namespace KITE::Benchmarks
