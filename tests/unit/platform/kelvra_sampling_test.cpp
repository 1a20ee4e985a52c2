#include <sys/file.h>

#include "kelvra_fixture.h"
#include "kelvra_manager/manager/process_table.h"
#include "kelvra_manager/manager/sampler.h"
#include "proc/process_stat.h"
#include "proc/program.h"
#include "remote_object.h"
#include "runtime/platform_log.h"

// Which processes are watched and what is measured of them, on processes of this machine.
namespace KITE::Linux::Sampling {
namespace {

using testing::ElementsAre, testing::IsEmpty, testing::SizeIs;

// Waits under one name and, once told, executes a program of another.
class Child : public Program {
  public:
    // A running process may have moved its CPU clock or not yet, so it sleeps after either operation.
    Child(const std::string& name, const std::string& next) : Program({name, "become", next}) {
        EXPECT_TRUE(AwaitState('S'));
    }
    void ExecuteNext(const std::string& name) const {
        Signal(SIGUSR1);
        EXPECT_TRUE(Eventually([&] { return ReadProcessName(Pid()) == name; }) && AwaitState('S'));
    }
};

class RealProcesses : public DirectoryTest {
  protected:
    void UseRules(std::vector<Kelvra::ResQuotaInfo> quotas) {
        table_->UseRules(std::make_shared<RuleBook>(std::move(quotas)));
    }
    // Of one second later.
    std::vector<Report>& Sample() {
        at_ += 1s;
        return reports_ = table_->Sample(at_, *reporter_);
    }

    const std::string first_ = "kelvra_first_" + std::to_string(getpid());
    const std::string second_ = "kelvra_second_" + std::to_string(getpid());
    TimePoint at_;
    const std::shared_ptr<Reporter> reporter_ = std::make_shared<Reporter>();
    std::optional<ProcessTable> table_{std::in_place};
    std::vector<Report> reports_;  // of the last sample
};

TEST_F(RealProcesses, AReportSaysWhatTheQuotaSaysAndWhatWasMeasured) {
    const Child child(first_, second_);
    UseRules({Quota(first_, "mem", 1, 1, 77)});
    EXPECT_THAT(Sample(), IsEmpty());
    ASSERT_THAT(Sample(), SizeIs(1));
    const Kelvra::ProcessAnomalyInfo& info = reports_[0];
    EXPECT_EQ(info.pid, child.Pid());
    EXPECT_EQ(info.uid, static_cast<int32_t>(getuid()));
    EXPECT_EQ(info.id, 77);
    EXPECT_EQ(info.duration, 1);
    EXPECT_GT(info.resource, 1);
    EXPECT_LT(info.resource, static_cast<int64_t>(child.ResidentKiB())) << "shared pages count in part";
    EXPECT_EQ(info.action, "kill");
    EXPECT_EQ(info.resType, "mem");
    EXPECT_EQ(info.processName, first_);
    EXPECT_THAT(info.conditions, ElementsAre(8, 1));
    EXPECT_EQ(ReadProcessStat(child.Pid()).ValueOr({}).startTime, info.startTime);
    EXPECT_GT(info.sampleTime, 0);
}

TEST_F(RealProcesses, AnExecutedProgramIsMatchedAnewAndInheritsNoWindow) {
    Child child(first_, second_);
    UseRules({Quota(first_, "mem", 1, 2, 1), Quota(second_, "mem", 1, 2, 2)});
    Sample();
    Sample();
    child.ExecuteNext(second_);
    EXPECT_THAT(Sample(), IsEmpty());
    EXPECT_EQ(table_->WatchedCount(), 0U);
    EXPECT_THAT(Sample(), IsEmpty());
    EXPECT_THAT(Sample(), IsEmpty());
    ASSERT_THAT(Sample(), SizeIs(1));
    EXPECT_EQ(reports_[0].id, 2);
}

TEST_F(RealProcesses, AProgramExecutedByAnUnwatchedProcessIsFoundAtAnyAge) {
    for (const auto& [age, latest] : {std::pair(1U, 1U), {3U, 1U}, {18U, ProcessTable::kCheckPeriod}}) {
        Child child(first_, second_);
        UseRules({Quota(second_, "mem", 1, 0)});
        for (uint32_t sample = 0; sample < age; ++sample) {
            EXPECT_THAT(Sample(), IsEmpty());
        }
        child.ExecuteNext(second_);
        uint32_t samples = 1;
        for (; Sample().empty() && samples <= latest; ++samples) {
        }
        EXPECT_LE(samples, latest);
    }
}

TEST_F(RealProcesses, OneThatWasTooManyIsWatchedOnceThereIsRoomThoughItSleeps) {
    Child one(first_, second_);
    Child other(first_, second_);
    const auto [watched, waiting] =
        std::minmax({&one, &other}, [](Child* a, Child* b) { return a->Pid() < b->Pid(); });
    table_.emplace(1);
    UseRules({Quota(first_, "mem", 1, 0)});
    for (uint32_t i = 0; i < 2 * ProcessTable::kCheckPeriod; ++i) {
        EXPECT_THAT(Sample(), SizeIs(1));
    }
    watched->Signal(SIGKILL);
    watched->AwaitEnd();
    for (uint32_t i = 0; i < ProcessTable::kCheckPeriod; ++i) {
        Sample();
    }
    ASSERT_THAT(Sample(), SizeIs(1));
    EXPECT_EQ(reports_[0].pid, waiting->Pid());
}

TEST_F(RealProcesses, AProblemIsToldOnceForTheSameRulesAndDoesNotSilenceAnother) {
    const std::string name = ReadProcessName(getpid());
    testing::internal::CaptureStderr();
    PLATFORM_LOGW("first line");  // the log opens what it needs while it can
    table_.emplace(0);
    UseRules({Quota(name, "mem", 1, 0)});
    Sample();
    {
        const DescriptorLimit none(0);
        Sample();
        Sample();
        UseRules({Quota(name, "mem", 2, 0)});
        Sample();
    }
    StopLog();
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::ContainsRegex("more than 0 processes.*/proc cannot be listed.*Too many open files"
                                       ".*name of process [0-9]+ cannot be read.*Too many open files\n"
                                       "[^\n]*/proc cannot be listed[^\n]*\n$"));
}

TEST_F(RealProcesses, APidThatIsUsedAgainIsLookedAtAtOnce) {
    const UniqueFd pidCounter(open("/proc/sys/kernel/ns_last_pid", O_WRONLY | O_CLOEXEC));
    flock(pidCounter.Get(), LOCK_EX);  // for one test at a time
    UseRules({Quota(first_, "mem", 1, 0)});
    Child other(second_, second_);
    for (uint32_t sample = 0; sample < 2 * ProcessTable::kCheckPeriod; ++sample) {
        EXPECT_THAT(Sample(), IsEmpty());
    }
    other.Signal(SIGKILL);
    other.AwaitEnd();
    const Process again({.program = KITE_TARGET, .arguments = {first_, "idle"}, .pid = other.Pid()});
    ASSERT_EQ(again.Pid(), other.Pid());
    EXPECT_THAT(Sample(), SizeIs(1));
}

TEST_F(RealProcesses, OtherRulesStartEveryWindowAnewAndOneThatEndsIsForgotten) {
    const Child child(first_, second_);
    UseRules({Quota(first_, "mem", 1, 1)});
    Sample();
    const auto others = std::make_shared<RuleBook>(std::vector{Quota(first_, "mem", 1, 1)});
    table_->UseRules(others);
    EXPECT_THAT(Sample(), IsEmpty());
    table_->UseRules(others);
    EXPECT_THAT(Sample(), SizeIs(1)) << "the same rules again change nothing";
    UseRules({Quota(first_, "mem", 1, 0), Quota(first_, "cpu", 1, 0), Quota(first_, "io", 1, 0)});
    EXPECT_THAT(Sample(), SizeIs(1));
    child.Signal(SIGKILL);
    ASSERT_TRUE(child.AwaitState('Z'));
    EXPECT_THAT(Sample(), IsEmpty());
    EXPECT_EQ(table_->WatchedCount(), 0U);
}

TEST_F(RealProcesses, AReportOnItsWayHoldsBackTheNextOfItsKindAndNoOther) {
    const Child child(first_, second_);
    const Child other(first_, second_);
    UseRules({Quota(first_, "mem", 1, 0)});
    const std::vector<Report> reports = Sample();
    ASSERT_THAT(reports, SizeIs(2));
    std::function<void(int32_t)> answer;
    reporter_->SetSubscriber(
        [&](const MessageParcel&, std::function<void(int32_t)> answered) { answer = std::move(answered); });
    reporter_->Send({reports.data(), 1});
    ASSERT_THAT(Sample(), SizeIs(1));
    EXPECT_EQ(reports_[0].pid, reports[1].pid);
    answer(ERR_NONE);
    EXPECT_THAT(Sample(), SizeIs(2));
}

TEST_F(RealProcesses, BusyThreadsAreMeasuredInPercentOfOneCore) {
    const Program burner({first_, "burn", "2"});
    UseRules({Quota(first_, "cpu", 5, 0)});
    Sample();
    const double used = burner.CpuPercent(300ms);
    ASSERT_THAT(Sample(), SizeIs(1));
    EXPECT_LE(reports_[0].resource, 101) << "of the first core";
    EXPECT_GE(static_cast<double>(reports_[0].resource), used * 0.8);
}

TEST(Sampler, TakesThePlaceOnTheGridThatALateSampleCameTo) {
    EXPECT_EQ(NextSampleTime(Second(10), Second(11.01), 1s), Second(11));
    EXPECT_EQ(NextSampleTime(Second(10), Second(10.99), 1s), Second(11));
    EXPECT_EQ(NextSampleTime(Second(10), Second(13.5), 1s), Second(13));
}

TEST(Sampler, ReportsOnceThereAreQuotasAndASubscriber) {
    const auto reporter = std::make_shared<Reporter>();
    std::atomic<int> batches = 0;
    Sampler sampler(100ms, 10, reporter);
    sampler.Start();
    const std::string name = ReadProcessName(getpid());
    sampler.SetQuotas({Quota(name, "mem", 1, 0)});
    sampler.SetSubscriber([](const MessageParcel&, const std::function<void(int32_t)>& answered) {
        answered(ERR_DEAD_OBJECT);
    });
    ASSERT_TRUE(Eventually([&] { return !reporter->HasSubscriber(); }));
    sampler.SetSubscriber([&](const MessageParcel&, const std::function<void(int32_t)>& answered) {
        answered(ERR_NONE);
        ++batches;
    });
    EXPECT_TRUE(Eventually([&] { return batches >= 2; }));
    sampler.Stop();
}

}  // namespace
}  // namespace KITE::Linux::Sampling
