#pragma once

#include <deque>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/file_names.h"
#include "bus_client.h"
#include "private_system/private_system.h"
#include "process.h"

namespace KITE::Integration {

// The system as the tests and benchmarks use it: with processes to treat, clients, and, where wanted, a
// manager that reports what it is told. Its configuration can be changed until its hosts start: at first one
// rule "warning", a debuggable build, samples every 100 ms, root as "svcdb", no device state. Whatever does
// not start throws.
class TestedSystem : public Tools::PrivateSystem {
  public:
    TestedSystem();

    // A rule for a process of that name, as an element of a policy.
    static std::string Rule(const std::string& processName, const std::string& resourceType, int64_t quota,
                            const std::string& action, int32_t runningTime = 0);
    void SetPolicy(const std::vector<std::string>& rules);
    void SetParameters(const std::string& json) {
        WriteWholeFile(Paths().etc + Linux::FileName::kParameters, json);
    }
    void SetTokens(const std::string& json, mode_t mode = 0644) {
        WriteWholeFile(Paths().etc + Linux::FileName::kTokens, json, mode);
    }
    void SetDeviceState(const std::string& json) { WriteWholeFile(DeviceState(), json); }
    std::string DeviceState() const { return State(Linux::FileName::kDeviceState); }

    const std::string& Address() const { return Paths().busAddress; }
    const std::string& Directory() const { return Paths().directory; }
    std::string Layer() const { return Directory() + "/layer"; }
    std::string State(const std::string& path = "") const { return Paths().state + path; }

    // Both hosts, until the service is reachable.
    void StartWhole();
    // The quota host with a manager of the caller's, until the service is reachable.
    FakeManager& StartWithFakeManager(const std::vector<std::string>& options = {});
    FakeManager& Manager() { return *manager_; }
    // SIGTERM to the quota host: its exit status.
    int StopQuotaHost();

    // A kite_target under that name and, unless the launch says otherwise, an untrusted user.
    Process& StartTarget(const std::string& name, const std::vector<std::string>& mode,
                         Launch launch = {.uid = kUntrustedUid});
    BusClient Connect(uid_t uid) const { return BusClient(Address(), uid); }
    // Records of treatments, and groups made for the targets.
    std::vector<std::string> TracesOfTreatments() const;

  protected:
    void DropManager() { manager_.reset(); }

  private:
    std::unique_ptr<FakeManager> manager_;
    std::deque<Process> targets_;
};

}  // namespace KITE::Integration
