#include "private_system/private_bus.h"

#include <fmt/format.h>

#include "base/file.h"

namespace KITE::Tools {

namespace {

// The daemon turns away a uid that has no entry in the user database, and ignores the rules for it. So the
// daemon alone is shown a database that has the users.
std::error_code WriteUserDatabase(const std::string& directory, const std::vector<uid_t>& users) {
    std::string passwd = Linux::ReadFile("/etc/passwd").ValueOr("");
    std::string group = Linux::ReadFile("/etc/group").ValueOr("");
    for (const uid_t uid : users) {
        passwd += fmt::format("kite{0}:x:{0}:{0}::/:/bin/false\n", uid);
        group += fmt::format("kite{0}:x:{0}:\n", uid);
    }
    const std::error_code error = Linux::WriteFile(directory + "/passwd", passwd);
    return error ? error : Linux::WriteFile(directory + "/group", group);
}

}  // namespace

std::string BusAddressIn(const std::string& directory) {
    return "unix:path=" + directory + "/bus";
}

Linux::Result<std::unique_ptr<ChildProcess>> StartBusDaemon(const std::string& directory,
                                                            const std::string& configuration,
                                                            const std::vector<uid_t>& users, LogFile& log) {
    if (const std::error_code error = WriteUserDatabase(directory, users)) {
        return Linux::Failure(directory, error);
    }
    auto daemon = std::make_unique<ChildProcess>(Launch{
        .program = "/usr/bin/env",
        .arguments = {"env", "LD_PRELOAD=libnss_wrapper.so", "NSS_WRAPPER_PASSWD=" + directory + "/passwd",
                      "NSS_WRAPPER_GROUP=" + directory + "/group", "dbus-daemon", "--nofork", "--nopidfile",
                      "--print-address", "--address=" + BusAddressIn(directory),
                      "--config-file=" + configuration},
        .output = log.Fd()});
    // It prints the address once it listens.
    if (!log.Await("unix:path=")) {
        return Linux::Failure("the bus daemon does not start, see its log");
    }
    return daemon;
}

}  // namespace KITE::Tools
