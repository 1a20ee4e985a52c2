#include <sys/file.h>

#include <cstring>
#include <limits>
#include <list>
#include <set>

#include "kelvra_manager/client/subscriber_stub.h"
#include "kelvra_manager/manager/process_table.h"
#include "kelvra_manager/manager/reporter.h"
#include "kelvra_manager/manager/sampler.h"
#include "kelvra_manager/protocol.h"
#include "kelvra_manager/record_list.h"
#include "platform_fixture.h"
#include "proc/command_line.h"
#include "proc/process_file.h"
#include "proc/process_stat.h"
#include "runtime/platform_log.h"

namespace KITE::Linux::Sampling {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Optional;
using ::testing::SizeIs;

constexpr int64_t kSecond = 1'000'000'000;

TimePoint Second(double seconds) {
    return TimePoint(nanoseconds(static_cast<int64_t>(seconds * kSecond)));
}

Kelvra::ResQuotaInfo Quota(std::string name, std::string resType, int64_t limit, int64_t duration,
                           int32_t id = 0) {
    Kelvra::ResQuotaInfo quota;
    quota.processName = std::move(name);
    quota.resType = std::move(resType);
    quota.resource = limit;
    quota.duration = duration;
    quota.id = id;
    quota.action = "kill";
    quota.conditions = {8, 1};
    return quota;
}

CounterReading At(double seconds, int64_t value) {
    return {Second(seconds), Second(seconds), value};
}

struct Reading {
    double second;
    std::optional<int64_t> value;  // none: it could not be read
    std::optional<int64_t> breach = std::nullopt;
    double lateBy = 0;
};

TEST(LevelWindow, BreaksWhenEveryReadingOfTheDurationWasAboveTheQuota) {
    const std::pair<std::chrono::seconds, std::vector<Reading>> cases[] = {
        {2s, {{0, 101}, {1, 500}, {2, 101, 101}}},
        {1s, {{0, 101}, {1, 100}, {2, 101}, {2, {}}, {3, 101}, {4, 101, 101}}},
        {0s, {{0, 101, 101}, {1, 100}}},
    };
    for (const auto& [duration, readings] : cases) {
        LevelWindow window(100, duration);
        for (const Reading& reading : readings) {
            if (reading.value) {
                EXPECT_EQ(window.Add(Second(reading.second), *reading.value), reading.breach);
            } else {
                window.Miss();
            }
        }
    }
}

TEST(CounterWindow, BreaksWhenMoreThanTheQuotaHasComeInTheLastDuration) {
    struct Case {
        const char* name;
        CounterWindow window;
        std::vector<Reading> readings;
    };
    constexpr int64_t s = kSecond;
    const auto percent = [](int64_t quota) { return CounterWindow(quota, 1s, Measure::kPercent); };
    const auto amount = [](std::chrono::seconds time) { return CounterWindow(1000, time, Measure::kAmount); };
    Case cases[] = {
        {"above by the smallest amount", percent(50), {{0, 0}, {1, s / 2}, {2, s + 1, 51}}},
        {"of what really passed", percent(150), {{0, 0}, {1, 2 * s, {}, 0.5}, {2, 4 * s, 200, 0.5}}},
        {"only when a full duration has been seen, and then of the last one",
         amount(3s),
         {{0, 0}, {1, 5000}, {2, 5000}, {3, 5000, 5000}, {4, 6000}, {5, 6001, 1001}}},
        {"a longer time counts for its share", amount(1s), {{0, 0}, {4, 4000}, {8, 8400, 1100}}},
        {"one that went back begins anew", amount(2s), {{0, 5000}, {1, 0}, {2, 7000}, {3, 7000, 7000}}}};
    for (auto& [name, window, readings] : cases) {
        for (const auto& [second, value, breach, lateBy] : readings) {
            EXPECT_EQ(window.Add({Second(second), Second(second + lateBy), *value}), breach)
                << name << ", second " << second;
        }
    }
}

TEST(CounterWindow, ALongWindowKeepsFewReadingsAndIsStillJudgedOverItsLastDuration) {
    CounterWindow window(3599, 3600s, Measure::kAmount);
    for (int second = 0; second < 3600; ++second) {
        ASSERT_EQ(window.Add(At(second, second)), std::nullopt);
    }
    EXPECT_THAT(window.Add(At(3600, 3600)), Optional(3600));
    EXPECT_LE(window.KeptReadings(), 122U);
    for (int second = 3630; second <= 7200; second += 30) {
        ASSERT_EQ(window.Add(At(second, second - 30)), std::nullopt);
    }
    EXPECT_LE(window.KeptReadings(), 122U);
    // Readings are kept every 30 s: the base may be that much older, and the growth is scaled for it.
    EXPECT_THAT(window.Add(At(7215, 7215)), Optional(3600));
}

TEST(Windows, EachRuleIsReportedByItsOwnMeasureOnceForEachWindow) {
    using Ids = std::vector<int32_t>;
    struct Case {
        const char* name;
        std::vector<Kelvra::ResQuotaInfo> quotas;
        std::vector<Ids> taken;
        int heldBack = -1;  // the second in which io is
        int unread = -1;    // the one in which memory could not be read
    };
    const auto mem = [](int64_t quota, int64_t duration, int32_t id) {
        return Quota("foo", "mem", quota, duration, id);
    };
    const Case cases[] = {
        {"each resource type by its own measure",
         {mem(999, 1, 1), Quota("foo", "cpu", 99, 1, 2), Quota("foo", "cpu_ext", 99, 1, 3),
          Quota("foo", "io", 999, 1, 4), mem(1000, 1, 5), Quota("foo", "io", 1000, 1, 6)},
         {{}, {1, 2, 3, 4}}},
        {"a report starts the window anew and a held back one does not",
         {mem(0, 2, 1), Quota("foo", "io", 0, 2, 2)},
         {{}, {}, {1}, {2}, {1}, {2}},
         2},
        {"what could not be read is not above", {mem(0, 2, 1)}, {{}, {}, {}, {}, {1}}, -1, 1},
        {"several rules in turn", {mem(0, 0, 1), mem(10, 0, 2)}, {{1}, {2}, {1}, {2}}}};
    for (const auto& [name, quotas, expected, heldBack, unread] : cases) {
        const RuleBook book(quotas);
        ProcessWindows windows(book.RulesFor("foo"));
        for (int second = 0; second < static_cast<int>(expected.size()); ++second) {
            Measurements sample;
            sample.at = sample.cpuReadAt = Second(second);
            sample.memoryKiB = second == unread ? std::nullopt : std::optional(1000);
            sample.cpuTime = nanoseconds(second * kSecond);
            sample.writtenBytes = second * 1000;
            windows.Add(sample);
            Ids taken;
            const bool isHeld = second == heldBack;
            for (const Breach& breach : windows.TakeBreaches(
                     [isHeld](Resource resource) { return isHeld && resource == Resource::kIo; })) {
                taken.push_back(breach.rule->quota.id);
            }
            EXPECT_EQ(taken, expected[static_cast<size_t>(second)]) << name << ", second " << second;
        }
    }
}

TEST(RuleBook, LeavesOutOnlyWhatCanNeverApply) {
    const RuleBook book({Quota("foo", "memory", 1, 1), Quota("/bin/foo", "mem", 1, 1),
                         Quota("foo", "cpu", 1, -5),
                         Quota("foo", "io", 1, std::numeric_limits<int64_t>::max())});
    ASSERT_THAT(book.RulesFor("foo"), SizeIs(2));
    EXPECT_EQ(book.RulesFor("foo")[0].duration, 0s);
    EXPECT_THAT(book.RulesFor("/bin/foo"), IsEmpty());
    EXPECT_THAT(book.RulesFor("fo"), IsEmpty());
}

TEST(ProcParse, TheNameIsTheLastComponentOfTheFirstArgument) {
    using namespace std::string_view_literals;
    EXPECT_EQ(ProcessNameOf("/usr/bin/a_name_beyond_15_bytes\0-c\0/etc/x\0"sv), "a_name_beyond_15_bytes");
    EXPECT_EQ(ProcessNameOf("plain"sv), "plain");
    EXPECT_EQ(ProcessNameOf("/ends/with/\0x\0"sv), "");
    EXPECT_EQ(ProcessNameOf(""sv), "");
    const std::string cutOff = "/" + std::string(kCommandLineBuffer - 5, 'd') + "/foo";
    EXPECT_EQ(ProcessNameOf(cutOff), "");
    EXPECT_EQ(ProcessNameOf(cutOff.substr(1) + '\0'), "foo");
}

TEST(ProcParse, TheServiceSeesWhatFollowsTheLastSlashOfAllArguments) {
    const auto seen = [](std::string_view cmdline, size_t pieceSize) {
        SeenName name;
        for (; !cmdline.empty(); cmdline.remove_prefix(std::min(pieceSize, cmdline.size()))) {
            name.Add(cmdline.substr(0, pieceSize));
        }
        return name.Text();
    };
    using namespace std::string_view_literals;
    for (const size_t pieceSize : {1U, 7U, 4096U}) {
        EXPECT_EQ(seen("/system/bin/foo_daemon\0--flag\0"sv, pieceSize), "foo_daemon");
        EXPECT_EQ(seen("/bin/foo\0-c\0/etc/conf\0"sv, pieceSize), "conf");
        EXPECT_EQ(seen("/bin/foo\0/tmp/\0"sv, pieceSize), "");
        EXPECT_EQ(seen("/bin/sixteen_bytes_xy\0"sv, pieceSize), "sixteen_bytes_x");
        EXPECT_EQ(seen("no_slash\0-a\0"sv, pieceSize), "no_slash");
    }
    EXPECT_TRUE(IsAcceptedAs("sixteen_bytes_x", "sixteen_bytes_xy"));
    EXPECT_FALSE(IsAcceptedAs("conf", "foo"));
    EXPECT_FALSE(IsAcceptedAs("", "foo"));
}

TEST(ProcParse, NumbersThatAreNotWholeAreAbsent) {
    EXPECT_THAT(ResidentPagesOf("100 42 3 1 0 7 0\n"), Optional(42));
    EXPECT_EQ(ResidentPagesOf("100 42"), std::nullopt);
    EXPECT_EQ(ResidentPagesOf("100"), std::nullopt);
    const std::string io = "cancelled_write_bytes: 7\nwrite_bytes: 4096\n";
    EXPECT_THAT(NumberOfLine(io, "write_bytes:"), Optional(4096));
    for (const char* line :
         {"write_bytes: 40", "write_bytes: x\n", "write_bytes: 99999999999999999999\n", "write_bytes:"}) {
        EXPECT_EQ(NumberOfLine(line, "write_bytes:"), std::nullopt) << line;
    }
    EXPECT_THAT(NumberOfLine("Name:\tx\nUid:\t1001\t0\t0\t0\n", "Uid:"), Optional(1001));
}

// Waits under one name and, once told, executes a program of another.
class Child : public Program {
  public:
    Child(const std::string& name, const std::string& next) : Program({name, "become", next}) {
        AwaitName(name);
    }
    void ExecuteNext(const std::string& name) const {
        Signal(SIGUSR1);
        AwaitName(name);
    }
    void End() {
        Signal(SIGKILL);
        AwaitEnd();
    }

  private:
    void AwaitName(const std::string& name) const {
        EXPECT_TRUE(Eventually([&] { return ReadProcessName(Pid()) == name; }));
        // A running process may have moved its CPU clock or not yet.
        EXPECT_TRUE(AwaitState('S'));
    }
};

// The machine's counter of pids, for one test at a time.
class PidCounter {
  public:
    PidCounter() { flock(file_.Get(), LOCK_EX); }
    void GoOnAfter(pid_t pid) const {
        const std::string text = std::to_string(pid);
        static_cast<void>(!pwrite(file_.Get(), text.data(), text.size(), 0));
    }

  private:
    const UniqueFd file_{open("/proc/sys/kernel/ns_last_pid", O_WRONLY | O_CLOEXEC)};
};

class RealProcesses : public DirectoryTest {
  protected:
    void UseRules(std::vector<Kelvra::ResQuotaInfo> quotas) {
        table_.UseRules(std::make_shared<RuleBook>(std::move(quotas)));
    }
    // Of one second later.
    std::vector<Report>& Sample() {
        at_ += 1s;
        reports_ = table_.Sample(at_, [this](const ReportKey& key) { return onTheWay_.contains(key); });
        return reports_;
    }

    const std::string first_ = "kelvra_first_" + std::to_string(getpid());
    const std::string second_ = "kelvra_second_" + std::to_string(getpid());
    TimePoint at_;
    std::set<ReportKey> onTheWay_;
    ProcessTable table_;
    std::vector<Report> reports_;  // of the last sample
};

TEST_F(RealProcesses, AReportSaysWhatTheQuotaSaysAndWhatWasMeasured) {
    const Child child(first_, second_);
    UseRules({Quota(first_, "mem", 1, 1, 77)});
    EXPECT_THAT(Sample(), IsEmpty());
    ASSERT_THAT(Sample(), SizeIs(1));
    const Kelvra::ProcessAnomalyInfo& info = reports_[0].info;
    EXPECT_EQ(info.pid, child.Pid());
    EXPECT_EQ(info.uid, static_cast<int32_t>(getuid()));
    EXPECT_EQ(info.id, 77);
    EXPECT_EQ(info.duration, 1);
    EXPECT_GT(info.resource, 1);
    EXPECT_LT(info.resource, 100'000);
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
    EXPECT_EQ(table_.WatchedCount(), 1U);
    EXPECT_THAT(Sample(), IsEmpty());
    EXPECT_THAT(Sample(), IsEmpty());
    ASSERT_THAT(Sample(), SizeIs(1));
    EXPECT_EQ(reports_[0].info.id, 2);
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
        while (Sample().empty() && samples <= latest) {
            ++samples;
        }
        EXPECT_LE(samples, latest);
    }
}

TEST_F(RealProcesses, OneThatWasTooManyIsWatchedOnceThereIsRoomThoughItSleeps) {
    Child one(first_, second_);
    Child other(first_, second_);
    const auto [watched, waiting] =
        std::minmax({&one, &other}, [](Child* a, Child* b) { return a->Pid() < b->Pid(); });
    ProcessTable table(1);
    table.UseRules(std::make_shared<RuleBook>(std::vector{Quota(first_, "mem", 1, 0)}));
    const auto sample = [&] { return table.Sample(at_ += 1s, [](const ReportKey&) { return false; }); };
    for (uint32_t i = 0; i < 2 * ProcessTable::kCheckPeriod; ++i) {
        EXPECT_THAT(sample(), SizeIs(1));
    }
    watched->End();
    for (uint32_t i = 0; i < ProcessTable::kCheckPeriod; ++i) {
        sample();
    }
    const std::vector<Report> reports = sample();
    ASSERT_THAT(reports, SizeIs(1));
    EXPECT_EQ(reports[0].info.pid, waiting->Pid());
}

void MeetTwoProblems(const std::string& name) {
    PLATFORM_LOGW("first line");  // the log and the table open what they need while they can
    ProcessTable table(0);
    table.UseRules(std::make_shared<RuleBook>(std::vector{Quota(name, "mem", 1, 0)}));
    const auto isOnTheWay = [](const ReportKey&) { return false; };
    table.Sample(Second(0), isOnTheWay);
    table.UseRules(std::make_shared<RuleBook>(std::vector{Quota(name, "mem", 2, 0)}));
    {
        const DescriptorLimit none(0);
        table.Sample(Second(1), isOnTheWay);
    }
    table.Sample(Second(2), isOnTheWay);
    StopLog();
    _exit(0);
}

TEST_F(RealProcesses, AProblemDoesNotSilenceAnother) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string name = ReadProcessName(getpid());
    const std::string wanted =
        "cannot be looked at: errno " + std::to_string(EMFILE) + ".*more processes have quotas";
    EXPECT_EXIT(MeetTwoProblems(name), ::testing::ExitedWithCode(0), wanted);
}

TEST_F(RealProcesses, APidThatIsUsedAgainIsLookedAtAtOnce) {
    const PidCounter pids;
    UseRules({Quota(first_, "mem", 1, 0)});
    Child other(second_, second_);
    for (int sample = 0; sample < 3; ++sample) {
        EXPECT_THAT(Sample(), IsEmpty());
    }
    other.End();
    const Process again({.program = KITE_TARGET, .arguments = {first_, "idle"}, .pid = other.Pid()});
    ASSERT_EQ(again.Pid(), other.Pid());
    EXPECT_THAT(Sample(), SizeIs(1));
}

TEST_F(RealProcesses, OtherRulesStartEveryWindowAnew) {
    const Child child(first_, second_);
    UseRules({Quota(first_, "mem", 1, 1)});
    Sample();
    UseRules({Quota(first_, "mem", 1, 1)});
    EXPECT_THAT(Sample(), IsEmpty());
    EXPECT_THAT(Sample(), SizeIs(1));
}

TEST_F(RealProcesses, OneThatEndsIsForgotten) {
    Child child(first_, second_);
    UseRules({Quota(first_, "mem", 1, 0), Quota(first_, "cpu", 1, 0), Quota(first_, "io", 1, 0)});
    EXPECT_THAT(Sample(), SizeIs(1));
    child.Signal(SIGKILL);
    ASSERT_TRUE(child.AwaitState('Z'));
    EXPECT_THAT(Sample(), IsEmpty());
    EXPECT_EQ(table_.WatchedCount(), 0U);
}

TEST_F(RealProcesses, AReportOnItsWayHoldsBackTheNextOfItsKindAndNoOther) {
    const Child child(first_, second_);
    const Child other(first_, second_);
    UseRules({Quota(first_, "mem", 1, 0)});
    const std::vector<Report> reports = Sample();
    ASSERT_THAT(reports, SizeIs(2));
    onTheWay_.insert(reports[0].key);
    ASSERT_THAT(Sample(), SizeIs(1));
    EXPECT_EQ(reports_[0].key, reports[1].key);
    onTheWay_.clear();
    EXPECT_THAT(Sample(), SizeIs(2));
}

TEST_F(RealProcesses, BusyThreadsAreMeasuredInPercentOfOneCore) {
    const Program burner({first_, "burn", "2"});
    UseRules({Quota(first_, "cpu", 5, 0)});
    Sample();
    const double used = burner.CpuPercent(300ms);
    ASSERT_THAT(Sample(), SizeIs(1));
    EXPECT_LE(reports_[0].info.resource, 101) << "of the first core";
    EXPECT_GE(static_cast<double>(reports_[0].info.resource), used * 0.8);
}

// Cut or padded anywhere, or with a false count, a list is refused as a whole.
TEST(RecordList, IsReadWholeOrRefused) {
    MessageParcel list;
    ASSERT_TRUE(WriteRecordList<Kelvra::ResQuotaInfo>({Quota("some_daemon", "io", 1, 2), {}}, list));
    const std::vector<std::byte> whole(list.Bytes().begin(), list.Bytes().end());
    const auto isRead = [](const std::vector<std::byte>& bytes) {
        MessageParcel parcel(bytes);
        return static_cast<bool>(ReadRecordList<Kelvra::ResQuotaInfo>(parcel));
    };
    EXPECT_TRUE(isRead(whole));
    for (size_t size = 0; size < whole.size() + 8; size += 4) {
        std::vector<std::byte> other = whole;
        other.resize(size);
        EXPECT_EQ(isRead(other), size == whole.size()) << size;
    }
    std::vector<std::byte> falseCount = whole;
    std::memset(falseCount.data(), 0xFF, sizeof(uint32_t));
    EXPECT_FALSE(isRead(falseCount));
}

TEST(Reporter, SendsBatchesOfBoundedSizeAndKnowsWhatIsOnItsWay) {
    const auto reporter = std::make_shared<Reporter>();
    std::vector<std::function<void(int32_t)>> answers;
    std::vector<size_t> sizes;
    reporter->SetSubscriber([&](const MessageParcel& batch, std::function<void(int32_t)> answered) {
        MessageParcel copy(batch);
        const auto infos = ReadRecordList<Kelvra::ProcessAnomalyInfo>(copy);
        sizes.push_back(infos ? infos->size() : 0);
        answers.push_back(std::move(answered));
    });
    std::vector<Report> reports(1001);
    for (size_t i = 0; i < reports.size(); ++i) {
        reports[i].key.pid = static_cast<pid_t>(i);
    }
    reporter->Send(reports);
    EXPECT_THAT(sizes, ElementsAre(1000, 1));
    answers[0](ERR_TIMED_OUT);
    EXPECT_FALSE(reporter->IsOnTheWay(reports[999].key));
    EXPECT_TRUE(reporter->IsOnTheWay(reports[1000].key));
    EXPECT_TRUE(reporter->HasSubscriber());
}

TEST(Reporter, DropsADeadSubscriberButNotTheOneThatReplacedIt) {
    const auto reporter = std::make_shared<Reporter>();
    std::function<void(int32_t)> answer;
    const Reporter::Deliver deliver = [&](const MessageParcel&, std::function<void(int32_t)> answered) {
        answer = std::move(answered);
    };
    reporter->SetSubscriber(deliver);
    reporter->Send(std::vector<Report>(1));
    reporter->SetSubscriber(deliver);
    answer(ERR_DEAD_OBJECT);
    EXPECT_TRUE(reporter->HasSubscriber());
    reporter->Send(std::vector<Report>(1));
    answer(ERR_DEAD_OBJECT);
    EXPECT_FALSE(reporter->HasSubscriber());
}

TEST(Sampler, TakesThePlaceOnTheGridThatALateSampleCameTo) {
    EXPECT_EQ(NextSampleTime(Second(10), Second(11.01), 1s), Second(11));
    EXPECT_EQ(NextSampleTime(Second(10), Second(10.99), 1s), Second(11));
    EXPECT_EQ(NextSampleTime(Second(10), Second(13.5), 1s), Second(13));
}

TEST(Sampler, ReportsOnceThereAreQuotasAndASubscriberAndStopsAtOnce) {
    const auto reporter = std::make_shared<Reporter>();
    std::atomic<int> batches = 0;
    Sampler sampler(100ms, 10, reporter);
    sampler.Start();
    const std::string name = ReadProcessName(getpid());
    sampler.SetQuotas({Quota(name, "mem", 1, 0)});
    reporter->SetSubscriber([&](const MessageParcel&, const std::function<void(int32_t)>& answered) {
        answered(ERR_NONE);
        ++batches;
    });
    sampler.SubscriberHasChanged();
    EXPECT_TRUE(Eventually([&] { return batches >= 2; }));
    sampler.Stop();
    const int afterStop = batches;
    sampler.SubscriberHasChanged();
    EXPECT_EQ(batches, afterStop);
}

class CountingSubscriber : public Kelvra::KelvraManagerTaskSubscriber {
  public:
    void OnReportAbnormalProcess(const std::vector<Kelvra::ProcessAnomalyInfo>& infos) override {
        records += infos.size();
    }
    size_t records = 0;
};

class Subscriber : public ::testing::Test {
  protected:
    Subscriber() { stub_->SetSubscriber(subscriber_); }

    static MessageParcel Batch(size_t count) {
        MessageParcel batch;
        Kelvra::ProcessAnomalyInfo info;
        info.processName = "some_daemon";
        info.conditions = {1, 2};
        EXPECT_TRUE(WriteRecordList(std::vector(count, info), batch));
        return batch;
    }

    std::shared_ptr<CountingSubscriber> subscriber_ = std::make_shared<CountingSubscriber>();
    sptr<SubscriberStub> stub_ = MakeSptr<SubscriberStub>();
};

TEST_F(Subscriber, TakesWholeBatchesOfProvenSendersAsLongAsItIsThere) {
    MessageParcel batch = Batch(3);
    MessageParcel again = Batch(3);
    MessageParcel reply;
    MessageOption option;
    EXPECT_EQ(stub_->OnRemoteRequest(KelvraProtocol::kReport, batch, reply, option), ERR_REFUSED);
    EXPECT_EQ(subscriber_->records, 0U);
    EXPECT_EQ(stub_->TakeBatch(batch), ERR_NONE);
    EXPECT_EQ(subscriber_->records, 3U);
    subscriber_.reset();
    EXPECT_EQ(stub_->TakeBatch(again), ERR_DEAD_OBJECT);
}

TEST_F(Subscriber, IsNotCalledForABatchThatIsCutPaddedOrEmpty) {
    const MessageParcel whole = Batch(2);
    std::vector<MessageParcel> broken(3);
    broken[0] = whole;
    broken[0].WriteInt32(0);
    broken[1] = Batch(0);
    broken[2].WriteUint32(std::numeric_limits<uint32_t>::max());
    for (size_t length = 0; length < whole.Bytes().size(); ++length) {
        const auto cut = whole.Bytes().first(length);
        broken.emplace_back(std::vector<std::byte>(cut.begin(), cut.end()));
    }
    for (MessageParcel& batch : broken) {
        EXPECT_EQ(stub_->TakeBatch(batch), KelvraProtocol::kBadReport) << batch.Bytes().size();
    }
    EXPECT_EQ(subscriber_->records, 0U);
}

}  // namespace
}  // namespace KITE::Linux::Sampling
