#pragma once

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "demo/child.h"
#include "demo/loop.h"

namespace KITE::Demo {

struct SystemOptions {
    std::filesystem::path binaryDirectory;              // of the host; the libraries are in ../lib
    std::filesystem::path etcDirectory;                 // the shipped configuration
    std::vector<std::filesystem::path> configurations;  // layers in place of the shipped ones
    std::filesystem::path rawLog;
};

// The whole system on a bus of its own: the bus daemon and both hosts, with their files in a directory that
// goes with it. Destruction stops everything, releases what was treated and leaves nothing behind. One
// thread, the loop's.
class KiteSystem {
  public:
    KiteSystem(Loop& loop, SystemOptions options);
    KiteSystem(const KiteSystem&) = delete;
    KiteSystem& operator=(const KiteSystem&) = delete;
    ~KiteSystem();

    // Returns when both abilities are there. False, with the reason, when that is not to be, takes too long,
    // or we are to stop.
    bool Start(std::string& error);
    // Stops both hosts, which release what they treat, and then releases what one left that had to be killed.
    // False when a host did not stop as it must, or not everything could be released.
    bool StopHosts();

    // Makes a page of what was measured and done so far. False when it could not be made.
    bool WritePlot(const std::filesystem::path& page);

    // Replaces the device state.
    bool WriteDeviceState(const nlohmann::json& state) const;
    // What ended though it was not to end yet; empty when all is well.
    std::string WhatFailed() const;

    std::filesystem::path EtcDirectory() const { return directory_ / "etc"; }
    std::filesystem::path StateDirectory() const { return directory_ / "state"; }
    std::string BusAddress() const;

  private:
    bool MakeDirectories(std::string& error);
    bool WriteConfiguration(std::string& error) const;
    bool WriteParameters() const;
    bool WriteBusConfiguration(std::string& error) const;
    std::vector<std::string> CopyShippedLayers() const;
    bool StartBus(std::string& error);
    bool StartHosts(std::string& error);
    Command HostCommand(uid_t uid, const std::string& capabilities) const;
    bool AwaitAbilities(std::string& error);
    bool Stop(std::unique_ptr<Child>& child);
    bool Release();
    bool RunToItsEnd(const Command& command);

    Loop& loop_;
    const SystemOptions options_;
    UniqueFd log_;
    std::filesystem::path directory_;
    std::unique_ptr<Child> busDaemon_;
    std::unique_ptr<Child> quotaHost_;
    std::unique_ptr<Child> kelvraHost_;
};

}  // namespace KITE::Demo
