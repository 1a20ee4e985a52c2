#pragma once

#include <optional>

#include "platform_fixture.h"
#include "proc/process_stat.h"
#include "treatments/recovery.h"
#include "treatments/treatments.h"

// Treatments of real processes, for whose sake this looks at /proc and at the control groups itself.
namespace KITE::Linux {

inline constexpr const char* kName = "culprit";

// A host, and a process that it treats. Without control groups, unless a test has it otherwise.
class TreatmentTest : public DirectoryTest {
  protected:
    TreatmentContext Context() const { return {.cgroups = groups_, .records = RecordStore(directory_)}; }
    // A host starts, in place of the one before, which dies without a word.
    Treatments& StartHost() {
        host_ = std::make_unique<Treatments>(Context());
        return *host_;
    }
    // The process starts, and a host that it is reported to.
    const Program& Begin(std::vector<std::string> mode = {"burn"}) {
        mode.insert(mode.begin(), kName);
        culprit_.emplace(std::move(mode));
        StartHost();
        EXPECT_TRUE(Report(*culprit_));
        return *culprit_;
    }
    bool Report(const Process& process, const std::string& name = kName) {
        return host_->Remember(process.Pid(), process.StartTime(), name);
    }
    // 0 or an error number.
    int Suppress(const std::string& name = kName) { return host_->Suppress(culprit_->Pid(), name).value(); }
    int EndSuppression(const std::string& name = kName) {
        return host_->EndSuppression(culprit_->Pid(), name).value();
    }
    int Freeze(std::optional<milliseconds> time = std::nullopt, const std::string& name = kName) {
        return host_->Freeze(culprit_->Pid(), name, time).value();
    }
    int Thaw(const std::string& name = kName) { return host_->Thaw(culprit_->Pid(), name).value(); }
    int Kill(const std::string& name = kName) { return host_->Kill(culprit_->Pid(), name, "CPU").value(); }
    // As a host does that starts.
    bool ReleaseLeft() const {
        TreatmentContext context = Context();
        return ReleaseLeftTreatments(context);
    }

    std::optional<Group> GroupOf(const Process& process, Hierarchy hierarchy = Hierarchy::kUnified) const {
        return groups_.GroupOf(process.Pid(), hierarchy);
    }
    // By the freezer of its group or by a signal.
    static bool IsHeld(const Process& process) {
        const std::optional<Group> group =
            Cgroups::OfThisMachine().GroupOf(process.Pid(), Hierarchy::kUnified);
        return (group && ReadGroupFile(*group, "cgroup.freeze") == "1") ||
               ReadProcessStat(process.Pid()).ValueOr({}).IsStopped();
    }
    static bool StandsStill(const Process& process) {
        // SIGSTOP is taken a moment after it was accepted; a freezer has been waited for.
        return Eventually([&] { return IsHeld(process); }) && process.StandsStill();
    }
    static bool IsIdle(pid_t pid) { return ReadThreadPolicies(pid)[0].IsIdle(); }
    bool HasRecords() const {
        return std::filesystem::exists(Path("treated")) && !std::filesystem::is_empty(Path("treated"));
    }
    // What a killed host has left of the process.
    static TreatmentRecord RecordOf(const Process& process) {
        TreatmentRecord record = RecordOfThisHost();
        record.pid = process.Pid();
        record.startTime = process.StartTime();
        record.processName = kName;
        record.freeze.emplace();
        return record;
    }
    // Whether the next host can release what is on that record.
    bool Release(const TreatmentRecord& record) const {
        EXPECT_FALSE(Context().records.Write(record));
        return ReleaseLeft();
    }
    // What was told of treatments, as "FREEZE 0", with the result.
    std::vector<std::string> Events() const {
        std::vector<std::string> events;
        for (const nlohmann::json& event : RecordedEvents()) {
            events.push_back(event["name"].get<std::string>() + ' ' + event["RESULT"].dump());
        }
        return events;
    }

    Cgroups groups_{"", false};
    std::optional<Program> culprit_;
    std::unique_ptr<Treatments> host_;
};

// With the machine's control groups, in which it must let a process be moved.
class TreatmentWithGroups : public TreatmentTest {
  protected:
    TreatmentWithGroups() { groups_ = Cgroups::OfThisMachine(); }
    void SetUp() override {
        for (const Hierarchy hierarchy : {Hierarchy::kUnified, Hierarchy::kCpuV1}) {
            const std::optional<Group> own = groups_.GroupOf(getpid(), hierarchy);
            const Group probe{hierarchy, own ? own->path + "/kite-probe" : ""};
            if (!own || CreateGroup(probe) || RemoveGroup(probe) || groups_.IsOwnedByManager(*own)) {
                GTEST_SKIP() << "no hierarchies in which a process can be moved";
            }
        }
    }
};

// With the machine's control groups, and with none.
class TreatmentByEachMeans : public TreatmentTest, public testing::WithParamInterface<bool> {
  protected:
    TreatmentByEachMeans() { groups_ = GetParam() ? Cgroups::OfThisMachine() : groups_; }
};

inline std::string MeansName(const testing::TestParamInfo<bool>& means) {
    return means.param ? "with_groups" : "without_groups";
}

}  // namespace KITE::Linux
