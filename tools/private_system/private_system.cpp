#include "private_system/private_system.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <utility>

#include "base/file.h"
#include "base/text.h"
#include "private_system/private_bus.h"

namespace KITE::Tools {

namespace {

namespace fs = std::filesystem;
using Linux::Failure;
using Linux::Result;

// What the shipped unit grants, as setpriv wants it: "+kill,+sys_nice" for CAP_KILL CAP_SYS_NICE.
std::string CapabilitiesOf(const std::string& shipped, const std::string& unit) {
    constexpr std::string_view kKey = "AmbientCapabilities=";
    constexpr std::string_view kPrefix = "CAP_";
    const std::string text = Linux::ReadFile(shipped + "/systemd/" + unit).ValueOr("");
    std::string capabilities;
    for (std::string_view line : Linux::Split(text, '\n')) {
        if (!line.starts_with(kKey)) {
            continue;
        }
        for (const std::string_view capability : Linux::Split(line.substr(kKey.size()), ' ')) {
            capabilities +=
                (capabilities.empty() ? "+" : ",+") + std::string(capability.substr(kPrefix.size()));
        }
    }
    std::ranges::transform(capabilities, capabilities.begin(),
                           [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return capabilities;
}

// Runs the program under that user, with these capabilities and no way to get others.
std::vector<std::string> UnprivilegedCommand(uid_t uid, const std::string& capabilities) {
    const std::string id = std::to_string(uid);
    return {"setpriv",
            "--reuid=" + id,
            "--regid=" + id,
            "--clear-groups",
            "--inh-caps=-all," + capabilities,
            "--ambient-caps=-all," + capabilities,
            "--bounding-set=-all," + capabilities,
            "--no-new-privs",
            "--pdeathsig=TERM",  // a host releases what it treats when this process is killed
            "--"};
}

Result<void> Stop(const std::string& who, ChildProcess& host) {
    if (host.HasEnded()) {
        return {};
    }
    host.Signal(SIGTERM);
    std::optional<int> status = host.AwaitEnd();
    if (!status) {
        host.Signal(SIGKILL);
        status = host.AwaitEnd();
    }
    return status == 0 ? Result<void>() : Failure(who + " " + EndText(status.value_or(0)));
}

}  // namespace

PrivateSystem::PrivateSystem(SystemParts parts) : parts_(std::move(parts)) {}

PrivateSystem::~PrivateSystem() {
    static_cast<void>(StopHosts());
    bus_.reset();
    std::error_code error;
    if (!paths_.directory.empty()) {
        fs::remove_all(paths_.directory, error);
    }
}

Result<void> PrivateSystem::MakeDirectories() {
    std::error_code error;
    std::string pattern = fs::temp_directory_path(error) / "kite-run-XXXXXX";
    if (error || mkdtemp(pattern.data()) == nullptr) {
        return Failure(pattern, error ? error : Linux::LastError());
    }
    paths_ = {pattern, pattern + "/etc", pattern + "/state", BusAddressIn(pattern)};
    const std::string samples = paths_.state + "-samples";
    // Hosts and clients of other users search the directory.
    if (chmod(pattern.c_str(), 0755) != 0 || mkdir(paths_.etc.c_str(), 0755) != 0 ||
        mkdir(paths_.state.c_str(), 0755) != 0 || chown(paths_.state.c_str(), kQuotaUid, kQuotaUid) != 0 ||
        mkdir(samples.c_str(), 0755) != 0 || chown(samples.c_str(), kKelvraUid, kKelvraUid) != 0) {
        return Failure(pattern, Linux::LastError());
    }
    return {};
}

Result<void> PrivateSystem::StartBus() {
    if (paths_.directory.empty()) {
        std::vector<uid_t> users = parts_.clientUids;
        users.insert(users.end(), {kQuotaUid, kKelvraUid});
        Result<void> made = MakeDirectories();
        made = made ? WriteBusConfiguration(paths_.directory, parts_.shipped + "/dbus", users) : made;
        if (!made) {
            return made;
        }
    }
    Result<std::unique_ptr<ChildProcess>> bus = StartBusDaemon(paths_.directory, LogFile(NextLog()).Fd());
    if (!bus) {
        return bus.Why();
    }
    bus_ = std::move(*bus);
    return {};
}

std::string PrivateSystem::NextLog() {
    return parts_.log.empty() ? paths_.directory + "/log." + std::to_string(logs_++) : parts_.log;
}

std::unique_ptr<HostProcess> PrivateSystem::StartHost(uid_t uid, const std::string& capabilities,
                                                      const std::vector<std::string>& arguments) {
    std::vector<std::string> command = UnprivilegedCommand(uid, capabilities);
    command.insert(command.end(), {parts_.host, "--state", paths_.state, "--run", paths_.state});
    command.insert(command.end(), parts_.logOptions.begin(), parts_.logOptions.end());
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<HostProcess>(NextLog(), command);
}

HostProcess& PrivateSystem::StartQuotaHost(const std::vector<std::string>& options) {
    std::vector<std::string> arguments{"--etc", paths_.etc, "--bus", paths_.busAddress, parts_.quotaLibrary};
    arguments.insert(arguments.end(), options.begin(), options.end());
    quotaHost_ = StartHost(kQuotaUid, QuotaCapabilities(), arguments);
    return *quotaHost_;
}

HostProcess& PrivateSystem::StartKelvraHost() {
    kelvraHost_ = StartHost(kKelvraUid, CapabilitiesOf(parts_.shipped, "kite-kelvra.service.in"),
                            {"--etc", paths_.etc, "--bus", paths_.busAddress, parts_.kelvraLibrary});
    return *kelvraHost_;
}

std::string PrivateSystem::QuotaCapabilities() const {
    return parts_.quotaCapabilities.empty() ? CapabilitiesOf(parts_.shipped, "kite-quota.service.in")
                                            : parts_.quotaCapabilities;
}

std::map<std::string, ChildProcess*> PrivateSystem::Processes() {
    std::map<std::string, ChildProcess*> processes{{"the bus daemon", bus_.get()}};
    if (quotaHost_) {
        processes.emplace("the host of the quota service", &quotaHost_->process);
    }
    if (kelvraHost_) {
        processes.emplace("the host of the Kelvra manager", &kelvraHost_->process);
    }
    return processes;
}

Result<void> PrivateSystem::AwaitService(milliseconds limit, int interruption) {
    const auto givesUp = [&] { return !WhatEnded().empty() || AwaitReadable(interruption, milliseconds(0)); };
    Result<void> isThere = AwaitBusName(paths_.busAddress, kQuotaName, givesUp, limit);
    const std::string ended = WhatEnded();
    return isThere || ended.empty() ? isThere : Failure(ended);
}

std::string PrivateSystem::WhatEnded() {
    for (const auto& [name, process] : Processes()) {
        if (process->HasEnded()) {
            return name + " " + EndText(process->AwaitEnd().value_or(0));
        }
    }
    return "";
}

Result<void> PrivateSystem::StopHosts() {
    Result<void> result;
    for (const auto& [name, process] : Processes()) {
        Result<void> stopped = process == bus_.get() ? Result<void>() : Stop(name, *process);
        result = result ? stopped : result;
    }
    // A host that was killed has left what it treated.
    if (quotaHost_ && quotaHost_->process.AwaitExit() != 0 && Release() != 0 && result) {
        result = Failure("not every process could be released");
    }
    return result;
}

int PrivateSystem::Release() {
    return StartHost(kQuotaUid, QuotaCapabilities(), {"--release"})->process.AwaitExit();
}

}  // namespace KITE::Tools
