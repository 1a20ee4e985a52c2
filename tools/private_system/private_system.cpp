#include "private_system/private_system.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

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

// What the shipped unit grants, as setpriv wants it: "+KILL,+SYS_NICE" for CAP_KILL CAP_SYS_NICE.
std::string CapabilitiesOf(const std::string& unit) {
    constexpr std::string_view kKey = "AmbientCapabilities=";
    constexpr std::string_view kPrefix = "CAP_";
    const std::string text = Linux::ReadFile(unit).ValueOr("");
    std::string capabilities;
    for (const std::string_view line : Linux::Split(text, '\n')) {
        for (const std::string_view name :
             Linux::Split(line.starts_with(kKey) ? line.substr(kKey.size()) : "", ' ')) {
            capabilities +=
                fmt::format("{}+{}", capabilities.empty() ? "" : ",", name.substr(kPrefix.size()));
        }
    }
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
    if (!paths_.directory.empty()) {
        return {};
    }
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
    if (Result<void> made = MakeDirectories(); !made) {
        return made;
    }
    std::vector<uid_t> users = parts_.clientUids;
    users.insert(users.end(), {kQuotaUid, kKelvraUid});
    LogFile log(NextLog());
    auto bus = StartBusDaemon(paths_.directory, parts_.shipped + "/dbus/kite-private-bus.conf", users, log);
    if (!bus) {
        return bus.Why();
    }
    bus_ = std::move(*bus);
    return {};
}

std::string PrivateSystem::NextLog() {
    return parts_.log.empty() ? paths_.directory + "/log." + std::to_string(logs_++) : parts_.log;
}

std::unique_ptr<HostProcess> PrivateSystem::StartHost(uid_t uid, const std::vector<std::string>& arguments) {
    const std::string unit = uid == kQuotaUid ? "kite-quota.service.in" : "kite-kelvra.service.in";
    const bool isUsual = uid != kQuotaUid || parts_.quotaCapabilities.empty();
    const std::string capabilities =
        isUsual ? CapabilitiesOf(parts_.shipped + "/systemd/" + unit) : parts_.quotaCapabilities;
    std::vector<std::string> command = UnprivilegedCommand(uid, capabilities);
    command.insert(command.end(), {parts_.host, "--etc", paths_.etc, "--bus", paths_.busAddress, "--state",
                                   paths_.state, "--run", paths_.state});
    command.insert(command.end(), parts_.logOptions.begin(), parts_.logOptions.end());
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<HostProcess>(NextLog(), command);
}

HostProcess& PrivateSystem::StartQuotaHost(std::vector<std::string> options) {
    options.push_back(parts_.quotaLibrary);
    quotaHost_ = StartHost(kQuotaUid, options);
    return *quotaHost_;
}

HostProcess& PrivateSystem::StartKelvraHost() {
    kelvraHost_ = StartHost(kKelvraUid, {parts_.kelvraLibrary});
    return *kelvraHost_;
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
    constexpr std::string_view kPublished = "publish resource quota control service successfully!";
    std::string ended;
    bool isThere = false;
    Eventually(
        [&] {
            ended = WhatEnded();
            isThere = quotaHost_->log.Contains(kPublished);
            return isThere || !ended.empty() || AwaitReadable(interruption, milliseconds(0));
        },
        limit);
    return isThere ? Result<void>() : Failure(ended.empty() ? "the quota service does not appear" : ended);
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
        if (process == bus_.get() || process->HasEnded()) {
            continue;
        }
        process->Signal(SIGTERM);
        if (!process->AwaitEnd()) {
            process->Signal(SIGKILL);
        }
        if (const std::optional<int> status = process->AwaitEnd(); status != 0) {
            result = Failure(name + " " + EndText(status.value_or(0)));
        }
    }
    // A host that was killed has left what it treated.
    if (quotaHost_ && quotaHost_->process.AwaitExit() != 0 && Release() != 0 && result) {
        result = Failure("not every process could be released");
    }
    return result;
}

int PrivateSystem::Release() {
    return StartHost(kQuotaUid, {"--release"})->process.AwaitExit();
}

}  // namespace KITE::Tools
