#pragma once

#include <deque>
#include <filesystem>
#include <optional>
#include <set>
#include <string>

#include "base/result.h"
#include "demo/competition.h"
#include "demo/observer.h"
#include "private_system/private_system.h"
#include "shared/event_follower.h"

namespace KITE::Demo {

// Prints a line in that tone.
void Say(Tools::Tone tone, const std::string& text);

// Starts the programs on a running system and watches what becomes of them. Destruction ends all of them. One
// thread.
class Demonstration {
  public:
    // `stop` becomes readable when we are to stop. `misbehave` is the program, `build` a directory that
    // probably lies on a disk.
    Demonstration(Tools::PrivateSystem& system, int stop, std::filesystem::path misbehave,
                  std::filesystem::path build);

    // Fails when a process has a program's name, since the service would treat it too.
    static Linux::Result<void> RefuseNamesakes();

    Linux::Result<void> Start();
    // Watches until each has met its fate, or it is clear that one will not, or we are to stop.
    void Watch();
    // Stops the hosts and sees what is frozen thaw; then shows the table. True when all is as it should be.
    bool Conclude();

  private:
    Linux::Result<void> StartProgram(const Program& program);
    std::error_code WriteDeviceState() const;
    void Look();
    void ShowReport(std::string_view line);
    void ShowEvent(const std::string& program, Tools::Tone tone, const std::string& what,
                   const std::string& detail) const;
    bool AreAll(bool (*condition)(const Observer&)) const;

    Tools::PrivateSystem& system_;
    const int stop_;
    const std::filesystem::path misbehave_;
    const std::filesystem::path build_;
    const int contestedCpu_;
    Competition competition_;
    std::deque<Observer> programs_;
    Clock::time_point start_{};
    std::optional<Tools::EventFollower> events_;
    std::set<std::string> told_;  // programs that are left alone, whose first report has been shown
};

}  // namespace KITE::Demo
