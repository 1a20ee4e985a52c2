#include "private_system/private_bus.h"

#include <poll.h>
#include <systemd/sd-bus.h>

#include <algorithm>

#include "base/file.h"
#include "ipc/handles.h"
#include "private_system/pipe.h"

namespace KITE::Tools {

namespace {

using Linux::ErrorOf;
using Linux::Failure;
using Linux::Result;
using Clock = std::chrono::steady_clock;

std::string Replaced(std::string text, const std::string& placeholder, const std::string& value) {
    for (size_t at = text.find(placeholder); at != std::string::npos; at = text.find(placeholder, at)) {
        text.replace(at, placeholder.size(), value);
        at += value.size();
    }
    return text;
}

// What a file becomes on its way into the directory.
struct Copy {
    std::string source;
    std::string name;
    std::function<std::string(std::string)> change;
};

Result<void> Make(const Copy& copy, const std::string& directory) {
    Result<std::string> text = Linux::ReadFile(copy.source);
    if (!text) {
        return text.Why().In(copy.source);
    }
    const std::string target = directory + copy.name;
    const std::error_code error = Linux::WriteFile(target, copy.change(*std::move(text)));
    return error ? Result<void>(Failure(target, error)) : Result<void>();
}

Result<Linux::BusHandle> Connect(const std::string& address) {
    sd_bus* bus = nullptr;
    int result = sd_bus_new(&bus);
    Linux::BusHandle handle(bus);
    if (result >= 0 && (result = sd_bus_set_address(bus, address.c_str())) >= 0 &&
        (result = sd_bus_set_bus_client(bus, 1)) >= 0) {
        result = sd_bus_start(bus);
    }
    if (result < 0) {
        return Failure("the bus at " + address, ErrorOf(result));
    }
    return handle;
}

// Of the signal that tells of a name's new owner, "" for none.
int OnOwnerChanged(sd_bus_message* message, void* isOwned, sd_bus_error* /*error*/) {
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    *static_cast<bool*>(isOwned) =
        sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) >= 0 && *newOwner != '\0';
    return 0;
}

// Waits for the bus or an interruption. False on the latter, and when the time is over.
bool AwaitMessage(sd_bus* bus, std::span<const int> interruptions, Clock::time_point end) {
    std::vector<pollfd> awaited{{sd_bus_get_fd(bus), POLLIN, 0}};
    for (const int fd : interruptions) {
        awaited.push_back({fd, POLLIN, 0});
    }
    const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
    return left.count() > 0 && poll(awaited.data(), awaited.size(), static_cast<int>(left.count())) > 0 &&
           std::all_of(awaited.begin() + 1, awaited.end(),
                       [](const pollfd& one) { return one.revents == 0; });
}

}  // namespace

std::string BusAddressIn(const std::string& directory) {
    return "unix:path=" + directory + "/bus";
}

// The daemon turns away a uid that has no entry in the user database, and ignores the rules for it. So the
// daemon alone is shown a database that has the users.
Result<void> WriteBusConfiguration(const std::string& directory, const std::string& shipped,
                                   const std::vector<uid_t>& users) {
    std::string passwd;
    std::string group;
    for (const uid_t uid : users) {
        const std::string number = std::to_string(uid);
        const std::string entry = "kite" + number + ":x:" + number + ":";
        passwd += entry + number + "::/:/bin/false\n";
        group += entry + "\n";
    }
    const auto addressed = [&](std::string text) {
        text = Replaced(std::move(text), "@LISTEN@", BusAddressIn(directory));
        return Replaced(std::move(text), "@RULES@", directory + "/kite.ability.conf");
    };
    const Copy copies[] = {
        {shipped + "/kite-private-bus.conf.in", "/bus.conf", addressed},
        {shipped + "/kite.ability.conf", "/kite.ability.conf", [](std::string text) { return text; }},
        {"/etc/passwd", "/passwd", [&](std::string text) { return std::move(text) + passwd; }},
        {"/etc/group", "/group", [&](std::string text) { return std::move(text) + group; }}};
    for (const Copy& copy : copies) {
        if (Result<void> made = Make(copy, directory); !made) {
            return made;
        }
    }
    return {};
}

Result<std::unique_ptr<ChildProcess>> StartBusDaemon(const std::string& directory, int log) {
    Pipe address;
    auto daemon = std::make_unique<ChildProcess>(Launch{
        .program = "/usr/bin/env",
        .arguments = {"env", "LD_PRELOAD=libnss_wrapper.so", "NSS_WRAPPER_PASSWD=" + directory + "/passwd",
                      "NSS_WRAPPER_GROUP=" + directory + "/group", "dbus-daemon", "--nofork", "--nopidfile",
                      "--print-address", "--config-file=" + directory + "/bus.conf"},
        .output = address.writeEnd.Get(),
        .error = log});
    address.writeEnd = Linux::UniqueFd();
    // It prints the address once it listens.
    char byte = 0;
    if (!AwaitReadable(address.readEnd.Get(), kPatience) || read(address.readEnd.Get(), &byte, 1) != 1) {
        return Failure("the bus daemon does not start, see its log");
    }
    return daemon;
}

Result<void> AwaitBusName(const std::string& address, const std::string& name,
                          std::span<const int> interruptions, milliseconds limit) {
    const auto end = Clock::now() + limit;
    const Result<Linux::BusHandle> bus = Connect(address);
    if (!bus) {
        return bus.Why();
    }
    // The match comes before the look at the present owner, so that no change is missed.
    bool isOwned = false;
    const std::string match =
        "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" + name + "'";
    const int result = sd_bus_add_match(bus->get(), nullptr, match.c_str(), &OnOwnerChanged, &isOwned);
    if (result < 0) {
        return Failure("the bus at " + address, ErrorOf(result));
    }
    sd_bus_creds* owner = nullptr;
    isOwned = sd_bus_get_name_creds(bus->get(), name.c_str(), 0, &owner) >= 0;
    sd_bus_creds_unref(owner);
    while (!isOwned) {
        const int processed = sd_bus_process(bus->get(), nullptr);
        if (processed < 0) {
            return Failure("the bus at " + address, ErrorOf(processed));
        }
        if (processed == 0 && !AwaitMessage(bus->get(), interruptions, end)) {
            return Failure(name + " does not appear on the bus");
        }
    }
    return {};
}

}  // namespace KITE::Tools
