#include "private_system.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>

namespace KITE::Integration {

namespace {

namespace fs = std::filesystem;

constexpr const char* kPolicyDirectory = "/etc/efficiency_manager";
constexpr const char* kSanitizerReports[] = {"ERROR: AddressSanitizer", "WARNING: ThreadSanitizer",
                                             "runtime error", "LeakSanitizer"};

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

// What the shipped unit grants, as setpriv wants it: a unit that grants too little fails the tests.
std::string CapabilitiesOf(const std::string& unit) {
    const std::string key = "AmbientCapabilities=";
    std::istringstream lines(ReadWholeFile(std::string(KITE_UNITS) + "/" + unit + ".service.in"));
    std::string capabilities;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(key)) {
            capabilities = " " + line.substr(key.size());
        }
    }
    std::transform(capabilities.begin(), capabilities.end(), capabilities.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return Replaced(capabilities, " cap_", ",+").substr(1);
}

}  // namespace

void PrivateSystem::SetUp() {
    ASSERT_EQ(0U, geteuid()) << "users and their rights are real here, so this needs root";
    directory_ = (fs::temp_directory_path() / "kite-integration-XXXXXX").string();
    ASSERT_NE(nullptr, mkdtemp(directory_.data()));
    etc_ = directory_ + "/etc";
    state_ = directory_ + "/state";
    fs::permissions(directory_, fs::perms(0755));
    quotaCapabilities_ = CapabilitiesOf("kite-quota");
    fs::create_directories(etc_);
    fs::create_directories(state_);
    fs::create_directories(Layer() + kPolicyDirectory);
    ASSERT_EQ(0, chown(state_.c_str(), kQuotaUid, kQuotaUid));
    WriteWholeFile(etc_ + "/config_directories.json", "{\"directories\": [\"" + Layer() + "\"]}");
    SetPolicy({Rule("nobody", "cpu", 50, "warning")});
    SetParameters(R"({"const.debuggable": 1, "kelvra.sample_period_ms": 100})");
    SetTokens(R"({"tokens": [{"uid": 0, "process_name": "svcdb",
                              "permissions": ["kite.permission.DUMP", "kite.permission.MANAGE_TREATMENTS"]},
                             {"uid": 61913, "process_name": "resource_quota_control"}]})");
    StartBus();
}

void PrivateSystem::TearDown() {
    manager_.reset();
    const bool wasKilled = quotaHost_ && quotaHost_->process.HasEnded();
    for (Host* host : {quotaHost_.get(), kelvraHost_.get()}) {
        if (host != nullptr) {
            host->process.Signal(SIGTERM);
            EXPECT_TRUE(host->process.AwaitEnd()) << "a host does not stop";
        }
    }
    if (wasKilled) {
        Release();
    }
    for (int i = 0; i < logs_; ++i) {
        const std::string text = ReadWholeFile(directory_ + "/log." + std::to_string(i));
        for (const char* report : kSanitizerReports) {
            EXPECT_EQ(std::string::npos, text.find(report)) << text;
        }
        if (HasFailure()) {
            std::cerr << "--- log " << i << "\n"
                      << text.substr(text.size() - std::min<size_t>(text.size(), 20'000)) << "\n";
        }
    }
    if (!directory_.empty()) {
        fs::remove_all(directory_);
    }
}

std::string PrivateSystem::Rule(const std::string& processName, const std::string& resourceType,
                                int64_t quota, const std::string& action, int32_t runningTime) {
    std::ostringstream rule;
    rule << R"({"process_name": ")" << processName
         << R"(", "inherit": "", "process_quotas": {"running_time": )" << runningTime << ", \""
         << resourceType << R"(": [{"condition": [], "id": 1, "resource_quota": )" << quota
         << R"(, "duration": 1, "action": ")" << action << "\"}]}}";
    return rule.str();
}

void PrivateSystem::SetPolicy(const std::vector<std::string>& rules) {
    std::string all;
    for (const std::string& rule : rules) {
        all += (all.empty() ? "" : ",\n") + rule;
    }
    WriteWholeFile(Layer() + kPolicyDirectory + "/process_resource_limit.json",
                   "{\"quotas\": [" + all + "]}");
}

// The daemon turns away users that it cannot look up, so it is shown a user database that has them.
void PrivateSystem::StartBus() {
    const std::string sources = KITE_BUS_CONFIGURATION;
    const std::string rules = directory_ + "/kite.ability.conf";
    address_ = "unix:path=" + directory_ + "/bus";
    WriteWholeFile(rules, ReadWholeFile(sources + "/kite.ability.conf"));
    const std::string configuration = ReadWholeFile(sources + "/kite-private-bus.conf.in");
    WriteWholeFile(directory_ + "/bus.conf",
                   Replaced(Replaced(configuration, "@LISTEN@", address_), "@RULES@", rules));
    std::string users = "root:x:0:0::/:/bin/sh\n";
    std::string groups = "root:x:0:\n";
    for (const uid_t uid : {kUntrustedUid, kQuotaUid, kKelvraUid}) {
        const std::string number = std::to_string(uid);
        users += "user" + number + ":x:" + number + ":" + number + "::/:/bin/false\n";
        groups += "user" + number + ":x:" + number + ":\n";
    }
    WriteWholeFile(directory_ + "/passwd", users);
    WriteWholeFile(directory_ + "/group", groups);
    LogFile log(directory_ + "/bus.log");
    busDaemon_ = std::make_unique<Process>(Launch{
        .program = "/usr/bin/env",
        .arguments = {"env", "LD_PRELOAD=libnss_wrapper.so", "NSS_WRAPPER_PASSWD=" + directory_ + "/passwd",
                      "NSS_WRAPPER_GROUP=" + directory_ + "/group", "dbus-daemon", "--nofork",
                      "--print-address", "--config-file=" + directory_ + "/bus.conf"},
        .output = log.Fd()});
    ASSERT_TRUE(log.Await("unix:path=")) << "the bus does not start: " << log.Text();
}

std::unique_ptr<Host> PrivateSystem::Start(uid_t uid, const std::string& capabilities,
                                           const std::vector<std::string>& arguments) {
    const std::string user = std::to_string(uid);
    std::vector<std::string> command{"setpriv",
                                     "--reuid=" + user,
                                     "--regid=" + user,
                                     "--inh-caps=" + capabilities,
                                     "--clear-groups",
                                     "--ambient-caps=" + capabilities,
                                     "--bounding-set=-all," + capabilities,
                                     "--pdeathsig=KILL",
                                     KITE_HOST,
                                     "--state",
                                     state_};
    command.insert(command.end(), logOptions_.begin(), logOptions_.end());
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<Host>(directory_ + "/log." + std::to_string(logs_++), command);
}

Host& PrivateSystem::StartQuotaHost(const std::vector<std::string>& options) {
    std::vector<std::string> arguments{"--etc", etc_, "--bus", address_, KITE_QUOTA_LIBRARY};
    arguments.insert(arguments.end(), options.begin(), options.end());
    quotaHost_ = Start(kQuotaUid, quotaCapabilities_, arguments);
    return *quotaHost_;
}

Host& PrivateSystem::StartKelvraHost() {
    kelvraHost_ = Start(kKelvraUid, CapabilitiesOf("kite-kelvra"),
                        {"--etc", etc_, "--bus", address_, KITE_KELVRA_LIBRARY});
    return *kelvraHost_;
}

void PrivateSystem::StartWhole() {
    StartKelvraHost();
    ASSERT_TRUE(StartQuotaHost().log.Await("publish resource quota control service successfully!"));
}

FakeManager& PrivateSystem::StartWithFakeManager(const std::vector<std::string>& options) {
    manager_ = std::make_unique<FakeManager>(address_);
    StartQuotaHost(options);
    EXPECT_TRUE(manager_->AwaitSubscription());
    EXPECT_TRUE(QuotaHost().log.Await("publish resource quota control service successfully!"));
    return *manager_;
}

int PrivateSystem::Release() {
    return Start(kQuotaUid, quotaCapabilities_, {"--release"})->process.AwaitExit();
}

int PrivateSystem::StopQuotaHost() {
    QuotaHost().process.Signal(SIGTERM);
    return QuotaHost().process.AwaitExit();
}

Process& PrivateSystem::StartTarget(const std::string& name, const std::vector<std::string>& mode,
                                    Launch launch) {
    launch.program = KITE_TARGET;
    launch.arguments = {name};
    launch.arguments.insert(launch.arguments.end(), mode.begin(), mode.end());
    Process& target = targets_.emplace_back(launch);
    EXPECT_TRUE(target.IsStarted());
    return target;
}

std::vector<std::string> PrivateSystem::TracesOfTreatments() const {
    std::vector<std::string> traces;
    std::error_code error;
    for (const auto& record : fs::directory_iterator(state_ + "/treated", error)) {
        traces.push_back(record.path());
    }
    const auto options = fs::directory_options::skip_permission_denied;
    for (auto entry = fs::recursive_directory_iterator("/sys/fs/cgroup", options, error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        if (entry->path().filename().string().starts_with("kite-")) {
            traces.push_back(entry->path());
        }
    }
    return traces;
}

void PrivateSystem::ExpectPromptAnswer() {
    BusClient client = Connect(kTrustedUid);
    const auto begin = std::chrono::steady_clock::now();
    const Answer answer = client.AskWrittenBytes({getpid()});
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_EQ("", answer.error);
    EXPECT_EQ(0, answer.status);
    EXPECT_EQ(1U, WrittenBytesOf(answer).size());
}

}  // namespace KITE::Integration
