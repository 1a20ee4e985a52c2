#include "private_system/private_bus.h"

#include <systemd/sd-bus.h>

#include "base/file.h"
#include "ipc/handles.h"
#include "private_system/pipe.h"

namespace KITE::Tools {

namespace {

using Linux::Failure;
using Linux::Result;

std::string Replaced(std::string text, const std::string& placeholder, const std::string& value) {
    for (size_t at = text.find(placeholder); at != std::string::npos; at = text.find(placeholder, at)) {
        text.replace(at, placeholder.size(), value);
        at += value.size();
    }
    return text;
}

// Writes to the target what the change makes of the source's text.
template <typename Change>
Result<void> Copy(const std::string& source, const std::string& target, Change change) {
    const Result<std::string> text = Linux::ReadFile(source);
    if (!text) {
        return text.Why().In(source);
    }
    const std::error_code error = Linux::WriteFile(target, change(*text));
    return error ? Result<void>(Failure(target, error)) : Result<void>();
}

// Null when that fails.
Linux::BusHandle Connect(const std::string& address) {
    sd_bus* bus = nullptr;
    sd_bus_new(&bus);
    Linux::BusHandle handle(bus);
    const bool isConnected = sd_bus_set_address(bus, address.c_str()) >= 0 &&
                             sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0;
    return isConnected ? std::move(handle) : nullptr;
}

bool HasOwner(sd_bus* bus, const std::string& name) {
    sd_bus_creds* owner = nullptr;
    const bool hasOwner = sd_bus_get_name_creds(bus, name.c_str(), 0, &owner) >= 0;
    sd_bus_creds_unref(owner);
    return hasOwner;
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
        std::string entry = "kite";
        entry.append(number).append(":x:").append(number).append(":");
        passwd.append(entry).append(number).append("::/:/bin/false\n");
        group.append(entry).append("\n");
    }
    const std::string rules = directory + "/kite.ability.conf";
    const auto addressed = [&](const std::string& text) {
        return Replaced(Replaced(text, "@LISTEN@", BusAddressIn(directory)), "@RULES@", rules);
    };
    const auto unchanged = [](const std::string& text) { return text; };
    Result<void> made = Copy(shipped + "/kite-private-bus.conf.in", directory + "/bus.conf", addressed);
    made = made ? Copy(shipped + "/kite.ability.conf", rules, unchanged) : made;
    made =
        made ? Copy("/etc/passwd", directory + "/passwd", [&](auto& text) { return text + passwd; }) : made;
    return made ? Copy("/etc/group", directory + "/group", [&](auto& text) { return text + group; }) : made;
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
                          const std::function<bool()>& givesUp, milliseconds limit) {
    const Linux::BusHandle bus = Connect(address);
    if (!bus) {
        return Failure("the bus at " + address + " does not answer");
    }
    bool isOwned = false;
    Eventually([&] { return (isOwned = HasOwner(bus.get(), name)) || givesUp(); }, limit);
    return isOwned ? Result<void>() : Failure(name + " does not appear on the bus");
}

}  // namespace KITE::Tools
