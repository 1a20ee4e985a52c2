#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "demo/display.h"
#include "demo/kite_system.h"
#include "demo/log_follower.h"
#include "demo/loop.h"
#include "demo/observer.h"

namespace KITE::Demo {

// Lets the programs loose on a running system and watches what becomes of them. Destruction ends all of them.
// One thread, the loop's.
class Demonstration {
  public:
    Demonstration(Loop& loop, KiteSystem& system, Display& display, const SystemOptions& options);
    Demonstration(const Demonstration&) = delete;
    Demonstration& operator=(const Demonstration&) = delete;
    ~Demonstration() = default;

    // The pid of a process that the policy would take for one of ours; nothing when there is none.
    static std::optional<std::string> FindNamesake();

    // Starts the programs and the competitor. False with the reason.
    bool Start(std::string& error);
    // Watches until each has met its fate, or it is clear that one will not. False when we are to stop.
    bool Watch();
    // Stops the hosts and sees what is frozen thaw; then shows the table. True when all is as it should be.
    bool Conclude();

  private:
    struct Running {
        std::unique_ptr<Child> child;
        std::unique_ptr<Observer> observer;
    };

    bool StartProgram(const Program& program, std::string& error);
    bool StartCompetitor(std::string& error);
    bool WriteDeviceState() const;
    pid_t PidOf(const std::string& name) const;
    void Look();
    void Show(const Observer& observer, const std::vector<Sighting>& sightings) const;
    void ShowRemark(const Remark& remark);
    void Compete();
    void OnCompetitorDone();
    bool IsOver() const;
    void SayIfBusy() const;

    Loop& loop_;
    KiteSystem& system_;
    Display& display_;
    const SystemOptions& options_;
    const int contestedCpu_;
    LogFollower log_;
    std::set<std::pair<std::string, std::string>> shown_;
    std::vector<Running> running_;
    UniqueFd toCompetitor_;
    UniqueFd fromCompetitor_;
    std::unique_ptr<Child> competitor_;
    bool isCompeting_ = false;
    Clock::time_point competedAt_{};
    Clock::time_point start_{};
    std::unique_ptr<Loop::Watch> competitorWatch_;
    std::unique_ptr<Loop::Watch> ticks_;
};

}  // namespace KITE::Demo
