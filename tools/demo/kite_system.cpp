#include "demo/kite_system.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <map>
#include <system_error>
#include <utility>

namespace KITE::Demo {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr uid_t kQuotaUid = 61913;
constexpr uid_t kKelvraUid = 61214;
constexpr const char* kQuotaName = "kite.ability.SA1913";
constexpr const char* kKelvraName = "kite.ability.SA1213";

// What a host may do beyond its uid. The quota host signals (kill), changes policies (sys_nice), reads and
// writes what belongs to others in /proc and in control groups (dac_*, sys_ptrace), and moves processes
// between version 1 groups, which only root may (setuid).
constexpr const char* kQuotaCapabilities = "kill,sys_nice,dac_override,dac_read_search,sys_ptrace,setuid";
constexpr const char* kKelvraCapabilities = "sys_ptrace,dac_read_search";

constexpr milliseconds kStartLimit{15'000};
constexpr milliseconds kStopLimit{10'000};

bool ReadFile(const fs::path& path, std::string& text) {
    std::ifstream file(path);
    text.assign(std::istreambuf_iterator<char>(file), {});
    return file.is_open() && !file.bad();
}

// The name appears with the whole content or not at all.
bool WriteFile(const fs::path& path, const std::string& text) {
    const fs::path fresh = path.string() + ".new";
    std::ofstream file(fresh);
    file << text;
    file.close();
    std::error_code error;
    if (file.good()) {
        fs::rename(fresh, path, error);
    }
    return file.good() && !error;
}

void Replace(std::string& text, const std::string& placeholder, const std::string& value) {
    for (size_t at = text.find(placeholder); at != std::string::npos; at = text.find(placeholder, at)) {
        text.replace(at, placeholder.size(), value);
        at += value.size();
    }
}

// "-all,+kill,+sys_nice" of "kill,sys_nice", as setpriv wants it.
std::string OnlyThese(const std::string& capabilities) {
    std::string list = "-all,+" + capabilities;
    for (size_t comma = list.find(',', 6); comma != std::string::npos; comma = list.find(',', comma + 1)) {
        list.insert(comma + 1, "+");
    }
    return list;
}

using BusPtr = std::unique_ptr<sd_bus, decltype(&sd_bus_flush_close_unref)>;

BusPtr Connect(const std::string& address) {
    sd_bus* raw = nullptr;
    if (sd_bus_new(&raw) < 0) {
        return {nullptr, &sd_bus_flush_close_unref};
    }
    BusPtr bus(raw, &sd_bus_flush_close_unref);
    const bool isUp = sd_bus_set_address(raw, address.c_str()) >= 0 && sd_bus_set_bus_client(raw, 1) >= 0 &&
                      sd_bus_start(raw) >= 0;
    return isUp ? std::move(bus) : BusPtr{nullptr, &sd_bus_flush_close_unref};
}

bool HasOwner(sd_bus* bus, const char* name) {
    sd_bus_creds* credentials = nullptr;
    const bool hasOwner = sd_bus_get_name_creds(bus, name, 0, &credentials) >= 0;
    sd_bus_creds_unref(credentials);
    return hasOwner;
}

}  // namespace

KiteSystem::KiteSystem(Loop& loop, SystemOptions options) : loop_(loop), options_(std::move(options)) {}

KiteSystem::~KiteSystem() {
    static_cast<void>(StopHosts());
    if (busDaemon_) {
        static_cast<void>(Stop(busDaemon_));
    }
    std::error_code error;
    if (!directory_.empty()) {
        fs::remove_all(directory_, error);
    }
}

std::string KiteSystem::BusAddress() const {
    return "unix:path=" + (directory_ / "bus").string();
}

bool KiteSystem::Start(std::string& error) {
    log_ = UniqueFd(open(options_.rawLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644));
    if (!log_) {
        error = ErrorText(options_.rawLog.string(), errno);
        return false;
    }
    return MakeDirectories(error) && WriteConfiguration(error) && WriteBusConfiguration(error) &&
           StartBus(error) && StartHosts(error) && AwaitAbilities(error);
}

bool KiteSystem::MakeDirectories(std::string& error) {
    std::error_code unused;
    const fs::path parent = fs::temp_directory_path(unused);
    std::string pattern = (unused ? fs::path("/tmp") : parent) / "kite-run-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        error = ErrorText(pattern, errno);
        return false;
    }
    directory_ = pattern;
    const fs::path samples = directory_ / "state-samples";
    // Hosts and clients of other users search it.
    if (chmod(directory_.c_str(), 0755) != 0 || mkdir((directory_ / "etc").c_str(), 0755) != 0 ||
        mkdir(StateDirectory().c_str(), 0755) != 0 ||
        chown(StateDirectory().c_str(), kQuotaUid, kQuotaUid) != 0 || mkdir(samples.c_str(), 0755) != 0 ||
        chown(samples.c_str(), kKelvraUid, kKelvraUid) != 0) {
        error = ErrorText(directory_.string(), errno);
        return false;
    }
    return true;
}

// The shipped layers, copied: the platform refuses directories that others than their owner may write, which
// a source tree may well be. Named in the shipped order.
std::vector<std::string> KiteSystem::CopyShippedLayers() const {
    std::string text;
    std::vector<std::string> layers;
    if (!ReadFile(options_.etcDirectory / "config_directories.json", text)) {
        return layers;
    }
    const json shipped = json::parse(text, nullptr, false);
    for (const json& directory : shipped.value("directories", json::array())) {
        const fs::path name = fs::path(directory.get<std::string>()).filename();
        const fs::path copy = directory_ / "quotas" / name;
        fs::create_directories(copy.parent_path());
        fs::copy(options_.etcDirectory / "quotas" / name, copy, fs::copy_options::recursive);
        fs::permissions(copy, fs::perms::group_write | fs::perms::others_write, fs::perm_options::remove);
        layers.push_back(copy);
    }
    return layers;
}

// The shipped ones; and what is measured is recorded, to be looked at afterwards.
bool KiteSystem::WriteParameters() const {
    std::string text;
    if (!ReadFile(options_.etcDirectory / "parameters.json", text)) {
        return false;
    }
    json parameters = json::parse(text, nullptr, false);
    if (!parameters.is_object()) {
        return false;
    }
    parameters["kelvra.record_samples"] = true;
    return WriteFile(directory_ / "etc" / "parameters.json", parameters.dump(2));
}

bool KiteSystem::WriteConfiguration(std::string& error) const {
    std::vector<std::string> layers;
    for (const fs::path& configuration : options_.configurations) {
        layers.push_back(fs::absolute(configuration).lexically_normal());
    }
    const fs::path etc = directory_ / "etc";
    try {
        if (layers.empty()) {
            layers = CopyShippedLayers();
        }
        fs::copy_file(options_.etcDirectory / "tokens.json", etc / "tokens.json");
        fs::permissions(etc / "tokens.json", fs::perms{0644});
    } catch (const std::exception& failure) {
        error = failure.what();
        return false;
    }
    if (!WriteParameters()) {
        error = "no parameters: " + options_.etcDirectory.string();
        return false;
    }
    const json directories{{"directories", layers}};
    if (layers.empty() || !WriteFile(etc / "config_directories.json", directories.dump(2))) {
        error = "no configuration directories: " + options_.etcDirectory.string();
        return false;
    }
    return true;
}

// The daemon turns away a uid that has no entry in the user database, and ignores rules for it. So it, and
// nobody else, sees this machine's database with the hosts' users added.
bool KiteSystem::WriteBusConfiguration(std::string& error) const {
    std::string bus;
    std::string rules;
    std::string users;
    std::string groups;
    const fs::path dbus = options_.etcDirectory / "dbus";
    const bool isRead = ReadFile(dbus / "kite-private-bus.conf.in", bus) &&
                        ReadFile(dbus / "kite.ability.conf", rules) && ReadFile("/etc/passwd", users) &&
                        ReadFile("/etc/group", groups);
    Replace(bus, "@LISTEN@", BusAddress());
    Replace(bus, "@RULES@", directory_ / "kite.ability.conf");
    for (const uid_t uid : {kQuotaUid, kKelvraUid}) {
        const std::string number = std::to_string(uid);
        std::string entry = "kite";
        entry.append(number).append(":x:").append(number);
        users.append(entry).append(":").append(number).append("::/:/bin/false\n");
        groups.append(entry).append(":\n");
    }
    const bool isWritten = isRead && WriteFile(directory_ / "bus.conf", bus) &&
                           WriteFile(directory_ / "kite.ability.conf", rules) &&
                           WriteFile(directory_ / "passwd", users) && WriteFile(directory_ / "group", groups);
    if (!isWritten) {
        error = "the configuration of the bus cannot be made from " + dbus.string();
    }
    return isWritten;
}

bool KiteSystem::StartBus(std::string& error) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        error = ErrorText("pipe", errno);
        return false;
    }
    constexpr int kAddressFd = 3;
    const UniqueFd address(ends[0]);
    UniqueFd writeEnd(ends[1]);
    Command command;
    command.executable = "/usr/bin/dbus-daemon";
    command.arguments = {"dbus-daemon", "--config-file=" + (directory_ / "bus.conf").string(),
                         "--nofork",    "--nopidfile",
                         "--nosyslog",  "--print-address=" + std::to_string(kAddressFd)};
    command.environment = {"LD_PRELOAD=libnss_wrapper.so",
                           "NSS_WRAPPER_PASSWD=" + (directory_ / "passwd").string(),
                           "NSS_WRAPPER_GROUP=" + (directory_ / "group").string()};
    command.descriptors = {{log_.Get(), STDERR_FILENO}, {writeEnd.Get(), kAddressFd}};
    command.deathSignal = SIGTERM;
    busDaemon_ = Child::Start(command, error);
    writeEnd = UniqueFd();
    if (!busDaemon_) {
        return false;
    }
    // It prints the address once it listens.
    bool hasSpoken = false;
    bool isListening = false;
    const auto watch = loop_.WhenReadable(address.Get(), [&] {
        char byte = 0;
        hasSpoken = true;
        isListening = read(address.Get(), &byte, 1) == 1;
    });
    loop_.RunUntil([&] { return hasSpoken; }, kStartLimit);
    error = isListening ? "" : "the bus daemon does not start";
    return isListening;
}

Command KiteSystem::HostCommand(uid_t uid, const std::string& capabilities) const {
    const std::string id = std::to_string(uid);
    const std::string only = OnlyThese(capabilities);
    Command command;
    command.executable = "/usr/bin/setpriv";
    command.arguments = {"setpriv",
                         "--reuid=" + id,
                         "--regid=" + id,
                         "--clear-groups",
                         "--inh-caps=" + only,
                         "--ambient-caps=" + only,
                         "--bounding-set=" + only,
                         "--no-new-privs",
                         "--pdeathsig=TERM",
                         "--",
                         options_.binaryDirectory / "kite_host",
                         "--log-to-stderr",
                         "--state=" + StateDirectory().string()};
    command.descriptors = {{log_.Get(), STDOUT_FILENO}, {log_.Get(), STDERR_FILENO}};
    command.deathSignal = SIGTERM;
    return command;
}

bool KiteSystem::StartHosts(std::string& error) {
    const fs::path libraries = options_.binaryDirectory.parent_path() / "lib";
    const auto start = [&](uid_t uid, const char* capabilities, const char* library) {
        Command command = HostCommand(uid, capabilities);
        command.arguments.push_back("--etc=" + (directory_ / "etc").string());
        command.arguments.push_back("--bus=" + BusAddress());
        command.arguments.push_back(libraries / library);
        return Child::Start(command, error);
    };
    quotaHost_ = start(kQuotaUid, kQuotaCapabilities, "libresource_quota_control.so");
    kelvraHost_ = quotaHost_ ? start(kKelvraUid, kKelvraCapabilities, "libkelvra_manager.so") : nullptr;
    return kelvraHost_ != nullptr;
}

bool KiteSystem::AwaitAbilities(std::string& error) {
    const BusPtr bus = Connect(BusAddress());
    // Whatever arrives makes the loop look again; the match comes before the first look.
    const bool isWatching =
        bus && sd_bus_attach_event(bus.get(), loop_.Get(), SD_EVENT_PRIORITY_NORMAL) >= 0 &&
        sd_bus_match_signal(
            bus.get(), nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "NameOwnerChanged", [](sd_bus_message*, void*, sd_bus_error*) { return 0; }, nullptr) >= 0;
    if (!isWatching) {
        error = "the bus at " + BusAddress() + " does not answer";
        return false;
    }
    const auto quotaEnd = loop_.WhenReadable(quotaHost_->Pidfd(), [] {});
    const auto kelvraEnd = loop_.WhenReadable(kelvraHost_->Pidfd(), [] {});
    const auto isUp = [&] { return HasOwner(bus.get(), kKelvraName) && HasOwner(bus.get(), kQuotaName); };
    loop_.RunUntil([&] { return !WhatFailed().empty() || isUp(); }, kStartLimit);
    error = WhatFailed();
    if (error.empty() && !isUp()) {
        error = loop_.StopSignal() != 0 ? "stopped" : "the service does not appear on the bus";
    }
    return error.empty();
}

std::string KiteSystem::WhatFailed() const {
    const std::array<std::pair<const char*, Child*>, 3> parts{
        {{"the bus daemon", busDaemon_.get()},
         {"the host of the quota service", quotaHost_.get()},
         {"the host of the Kelvra manager", kelvraHost_.get()}}};
    for (const auto& [name, child] : parts) {
        if (child != nullptr && child->HasEnded()) {
            return std::string(name) + " " + child->AwaitEnd().Text();
        }
    }
    return "";
}

bool KiteSystem::Stop(std::unique_ptr<Child>& child) {
    child->Signal(SIGTERM);
    {
        const auto watch = loop_.WhenReadable(child->Pidfd(), [] {});
        loop_.RunToTheEnd([&] { return child->HasEnded(); }, kStopLimit);
    }
    const bool hasStopped = child->HasEnded();
    const Ending ending = hasStopped ? child->AwaitEnd() : Ending{};
    child.reset();
    return hasStopped && ending.code == CLD_EXITED && ending.status == 0;
}

bool KiteSystem::StopHosts() {
    if (!quotaHost_) {
        return true;
    }
    const bool quotaStopped = Stop(quotaHost_);
    const bool kelvraStopped = !kelvraHost_ || Stop(kelvraHost_);
    const bool isReleased = Release();
    return quotaStopped && kelvraStopped && isReleased;
}

bool KiteSystem::Release() {
    Command command = HostCommand(kQuotaUid, kQuotaCapabilities);
    command.arguments.emplace_back("--release");
    return RunToItsEnd(command);
}

bool KiteSystem::WritePlot(const fs::path& page) {
    Command command;
    command.executable = options_.binaryDirectory / "rqctl";
    command.arguments = {"rqctl", "plot", "--state=" + StateDirectory().string(),
                         "--output=" + page.string()};
    command.descriptors = {{log_.Get(), STDOUT_FILENO}, {log_.Get(), STDERR_FILENO}};
    return RunToItsEnd(command);
}

bool KiteSystem::RunToItsEnd(const Command& command) {
    std::string error;
    const std::unique_ptr<Child> child = Child::Start(command, error);
    if (!child) {
        return false;
    }
    const auto watch = loop_.WhenReadable(child->Pidfd(), [] {});
    loop_.RunToTheEnd([&] { return child->HasEnded(); }, kStopLimit);
    return child->HasEnded() && child->AwaitEnd().code == CLD_EXITED && child->AwaitEnd().status == 0;
}

bool KiteSystem::WriteDeviceState(const json& state) const {
    return WriteFile(StateDirectory() / "device_state.json", state.dump(2));
}

}  // namespace KITE::Demo
