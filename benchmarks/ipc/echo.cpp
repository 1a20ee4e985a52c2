#include "ipc/echo.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <vector>

#include "ipc/handles.h"
#include "kelvra_manager/protocol.h"

namespace KITE::Benchmarks {

namespace {

constexpr const char* kEcho = "--echo";
constexpr const char* kPath = Linux::KelvraProtocol::kSubscriberPath;

int OnTransact(sd_bus_message* call, void* reply, sd_bus_error* /*error*/) {
    const auto& bytes = *static_cast<const std::vector<char>*>(reply);
    sd_bus_message* raw = nullptr;
    sd_bus_message_new_method_return(call, &raw);
    const Linux::MessageHandle message(raw);
    sd_bus_message_append(raw, "i", 0);
    sd_bus_message_append_array(raw, 'y', bytes.data(), bytes.size());
    return sd_bus_send(nullptr, raw, nullptr);
}

int Serve(const char* address, std::vector<char> reply) {
    static const sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Transact", "uay", "iay", &OnTransact, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    const Integration::BusClient client(address, Integration::kTrustedUid);
    sd_bus_add_object_vtable(client.Bus(), nullptr, kPath, "kite.Ability", vtable, &reply);
    const char* name = nullptr;
    sd_bus_get_unique_name(client.Bus(), &name);
    std::printf("%s\n", name);
    std::fflush(stdout);
    int result = 0;
    while (result >= 0) {
        result = sd_bus_process(client.Bus(), nullptr);
        if (result == 0) {
            result = sd_bus_wait(client.Bus(), std::numeric_limits<uint64_t>::max());
        }
    }
    return EXIT_FAILURE;
}

}  // namespace

Echo::Echo(const std::string& address, const std::string& directory, size_t replySize)
    : replySize_(replySize),
      output_(directory + "/echo." + std::to_string(replySize)),
      process_({.program = "/proc/self/exe",
                .arguments = {"kite_echo", kEcho, address, std::to_string(replySize)},
                .output = output_.Fd()}) {
    if (!output_.Await("\n")) {
        throw std::runtime_error("the echo does not start");
    }
    name_ = output_.Text();
    name_.pop_back();
}

bool Echo::Call(Integration::BusClient& client, const MessageParcel& request) const {
    const Integration::Answer answer = client.Transact(name_, kPath, 1, request);
    return answer.error.empty() && answer.reply.Bytes().size() == replySize_;
}

std::optional<int> RunAsEcho(int argc, char** argv) {
    if (argc != 4 || std::strcmp(argv[1], kEcho) != 0) {
        return std::nullopt;
    }
    return Serve(argv[2], std::vector<char>(std::strtoul(argv[3], nullptr, 10)));
}

}  // namespace KITE::Benchmarks
