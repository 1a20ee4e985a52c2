#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <memory>
#include <sstream>

#include "bus_client.h"
#include "process.h"

namespace KITE::Integration {

struct Host {
    Host(const std::string& logPath, const std::vector<std::string>& command)
        : log(logPath), process({.program = "/usr/bin/setpriv", .arguments = command, .output = log.Fd()}) {}

    LogFile log;
    Process process;
};

// A private bus with the shipped rules, directories of its own, and hosts that run on them under the users
// that they have on a device. Ends everything after the test, and fails it if a sanitizer had something to
// say.
class PrivateSystem : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // A rule for a process of that name, as an element of a policy.
    static std::string Rule(const std::string& processName, const std::string& resourceType, int64_t quota,
                            const std::string& action, int32_t runningTime = 0);
    // The policy, parameters, tokens and device state before the test changes them: one rule "warning", a
    // debuggable build, samples every 100 ms, root as "svcdb", no device state.
    void SetPolicy(const std::vector<std::string>& rules);
    void SetParameters(const std::string& json) { WriteWholeFile(etc_ + "/parameters.json", json); }
    void SetTokens(const std::string& json, mode_t mode = 0644) {
        WriteWholeFile(etc_ + "/tokens.json", json, mode);
    }
    void SetDeviceState(const std::string& json) { WriteWholeFile(state_ + "/device_state.json", json); }
    std::string Layer() const { return directory_ + "/layer"; }

    // Hosts that are started from now on log to the journal, where there is one, and not to their files.
    void LogToJournal() { logOptions_.clear(); }
    Host& StartQuotaHost(const std::vector<std::string>& options = {});
    Host& StartKelvraHost();
    // Both hosts, until the service is reachable.
    void StartWhole();
    // The quota host with a manager of the test's, until the service is reachable.
    FakeManager& StartWithFakeManager(const std::vector<std::string>& options = {});
    Host& QuotaHost() { return *quotaHost_; }
    Host& KelvraHost() { return *kelvraHost_; }
    Process& BusDaemon() { return *busDaemon_; }
    void StartBus();
    FakeManager& Manager() { return *manager_; }
    // kite_host --release: its exit status.
    int Release();
    // SIGTERM to the quota host: its exit status.
    int StopQuotaHost();

    // A kite_target under that name and, unless the launch says otherwise, an untrusted user.
    Process& StartTarget(const std::string& name, const std::vector<std::string>& mode,
                         Launch launch = {.uid = kUntrustedUid});
    // Files in <state>/treated and groups named kite-*.
    std::vector<std::string> TracesOfTreatments() const;

    // The service answers a trusted caller correctly within a second.
    void ExpectPromptAnswer();
    BusClient Connect(uid_t uid) const { return BusClient(address_, uid); }
    const std::string& Address() const { return address_; }
    const std::string& Directory() const { return directory_; }
    std::string State(const std::string& path = "") const { return state_ + path; }  // of the directory

    std::string quotaCapabilities_;  // as setpriv wants them; the unit's, unless a test changes them

  private:
    std::unique_ptr<Host> Start(uid_t uid, const std::string& capabilities,
                                const std::vector<std::string>& arguments);

    std::string directory_;
    std::string etc_;
    std::string state_;
    std::string address_;
    int logs_ = 0;
    std::vector<std::string> logOptions_{"--log-to-stderr"};
    std::unique_ptr<Process> busDaemon_;
    std::unique_ptr<Host> quotaHost_;
    std::unique_ptr<Host> kelvraHost_;
    std::unique_ptr<FakeManager> manager_;
    std::deque<Process> targets_;
};

}  // namespace KITE::Integration
