#include "proc/pidfd.h"
#include "treatment_fixture.h"
#include "treatments/freeze.h"
#include "treatments/suppress.h"

namespace KITE::Linux {

using TreatmentRecordTest = TreatmentTest;
using RecordByEachMeans = TreatmentByEachMeans;
INSTANTIATE_TEST_SUITE_P(, RecordByEachMeans, testing::Bool(), MeansName);

TEST_P(RecordByEachMeans, NothingIsDoneThatCannotBeRecorded) {
    const Program& culprit = Begin();
    const std::string before = culprit.Standing();
    for (const bool isLink : {true, false}) {
        std::filesystem::remove(Path("treated"));
        if (isLink) {
            std::filesystem::create_directory_symlink("/tmp", Path("treated"));
        } else {
            std::filesystem::create_directory(Path("treated"));
            std::filesystem::permissions(Path("treated"), std::filesystem::perms::all);
        }
        EXPECT_NE(Freeze(), 0) << isLink;
        EXPECT_NE(Suppress(), 0) << isLink;
    }
    EXPECT_TRUE(culprit.Runs());
    EXPECT_EQ(culprit.Standing(), before);
}

TEST_P(RecordByEachMeans, ATreatmentThatFindsTheProcessGoneLeavesNoRecord) {
    const Program& culprit = Begin();
    const Result<UniqueFd> pidfd = OpenProcess(culprit.Pid(), culprit.StartTime());
    TreatmentContext context = Context();
    TreatmentRecord record = RecordOf(culprit);
    record.freeze.reset();
    culprit_.reset();
    EXPECT_TRUE(Linux::Suppress(context, record, pidfd->Get()).error);
    EXPECT_FALSE(HasRecords());
    EXPECT_TRUE(Linux::Freeze(context, record, pidfd->Get()).error);
    EXPECT_FALSE(HasRecords());
}

TEST_F(TreatmentRecordTest, ARecordThatFitsNothingIsRefusedOrForgotten) {
    // It has the pid of a process that was stopped by a host, and was stopped by another program.
    const Program newcomer({"newcomer", "burn"});
    newcomer.Signal(SIGSTOP);
    TreatmentRecord record = RecordOf(newcomer);
    --record.startTime;
    EXPECT_TRUE(Release(record));
    EXPECT_FALSE(HasRecords());
    EXPECT_TRUE(StandsStill(newcomer));
    ++record.startTime;
    record.bootId = "of-another-boot";
    EXPECT_TRUE(Release(record));
    EXPECT_FALSE(HasRecords());
    EXPECT_TRUE(StandsStill(newcomer));
    // The record of one process under the name of another's.
    EXPECT_FALSE(Context().records.Write(record));
    std::filesystem::rename(Path("treated/" + record.Key() + ".json"), Path("treated/12-34.json"));
    EXPECT_FALSE(ReleaseLeft());
    std::ofstream(Path("treated/12-34.json")) << R"({"boot_id":"x","pid":1})";
    EXPECT_FALSE(ReleaseLeft());
    EXPECT_TRUE(ReleaseLeft());
    EXPECT_TRUE(std::filesystem::exists(Path("treated/.12-34.json.bad")));
    for (const char* target : {"/etc/passwd", "/nowhere"}) {
        std::filesystem::create_symlink(target, Path("treated/12-34.json"));
        EXPECT_FALSE(ReleaseLeft());
        EXPECT_TRUE(ReleaseLeft());
    }
    std::filesystem::create_symlink(Path("other"), Path("treated/.unfinished"));
    EXPECT_TRUE(Is(Context().records.Write(record), ELOOP));
}

TEST_F(TreatmentRecordTest, ARecordOfGroupsThatAreNotMountedIsKept) {
    TreatmentRecord record = RecordOf(Begin());
    Put("cgroup.freeze", "1");
    record.freeze = FreezeRecord{ChangedGroup{{Hierarchy::kUnified, directory_}, "0", ""}, false};
    EXPECT_FALSE(Release(record));
    EXPECT_FALSE(ReleaseLeft());
    EXPECT_TRUE(HasRecords());
    EXPECT_EQ(Get("cgroup.freeze"), "1") << "written where no group is";
}

// Written by version 1.0, whose records a host of this version may find.
TEST_F(TreatmentRecordTest, ARecordOfAnEarlierVersionIsReadWhole) {
    const std::string text =
        R"({"boot_id":"b","freeze":{"frozen_group":{"group":{"hierarchy":"unified","path":"/g/kite-12-34"},)"
        R"("previous":"0","previous_weight":""},"was_stopped":true},"host_pid":5,"host_start_time":6,"pid":12,)"
        R"("placements":[{"group":{"hierarchy":"cpu","path":"/c/kite-12-34"},"home":{"hierarchy":"cpu",)"
        R"("path":"/c"}}],"process_name":"n","start_time":34,"suppression":{"idle_group":{"group":{"hierarchy":)"
        R"("cpu","path":"/c/kite-12-34"},"previous":"0","previous_weight":"1024"},"process_group":7,"session":8,)"
        R"("since":9,"threads":[{"deadline":1,"flags":2,"nice":-3,"period":4,"policy":5,"priority":6,)"
        R"("runtime":7,"start_time":8,"tid":9}]}})"
        "\n";
    const Result<TreatmentRecord> record = ReadRecord(text);
    ASSERT_TRUE(record) << record.Why().Text();
    EXPECT_EQ(WriteRecord(*record), text) << "nothing was lost";
    EXPECT_EQ(record->suppression->threads[0].attributes.nice, -3);
    EXPECT_EQ(record->suppression->idleGroup->previousWeight, "1024");
}

TEST_F(TreatmentRecordTest, ARecordNamesOnlyGroupsThatATreatmentCouldHaveChanged) {
    const Cgroups groups("30 20 0:27 / /groups rw - cgroup2 none rw\n", false);
    const struct {
        std::string home, group, frozen;
        bool isTaken;
    } cases[] = {{"/groups/a", "/groups/a/kite-12-34", "/groups/a/kite-12-34", true},
                 {"/groups", "/groups/kite-12-34", "/groups/own", true},
                 {"/groups/a", "/groups/a/kite-12-35", "/groups/a", false},
                 {"/groups/a", "/groups/kite-12-34", "/groups/a", false},
                 {"/etc", "/etc/kite-12-34", "/groups/a", false},
                 {"/groups/..", "/groups/../kite-12-34", "/groups/a", false},
                 {"/groups/a", "/groups/a/kite-12-34", "/groups", false},
                 {"/groups/a", "/groups/a/kite-12-34", "/groups/../etc", false}};
    for (const auto& [home, group, frozen, isTaken] : cases) {
        TreatmentRecord record;
        record.pid = 12;
        record.startTime = 34;
        record.placements.push_back({{Hierarchy::kUnified, home}, {Hierarchy::kUnified, group}});
        record.freeze = FreezeRecord{ChangedGroup{{Hierarchy::kUnified, frozen}, "0", ""}, false};
        EXPECT_EQ(ReadRecord(WriteRecord(record)) && GroupsArePlausible(record, groups), isTaken)
            << group << ' ' << frozen;
    }
}

}  // namespace KITE::Linux
