#include <filesystem>
#include <fstream>

#include "base/text.h"
#include "rqctl_fixture.h"

// What an operator sees and does: the dry run, and rqctl's watch, treated and release.
namespace KITE::Integration {

namespace {

std::vector<std::string> LinesOf(const std::string& text) {
    const auto lines = Linux::Split(text, '\n');
    return {lines.begin(), lines.end()};
}

}  // namespace

class OperatorTest : public RqctlFixture {
  protected:
    // Runs once it looks for changes of the directory.
    Command& StartWatch(const std::vector<std::string>& options = {}) {
        std::vector<std::string> words{"watch"};
        words.insert(words.end(), options.begin(), options.end());
        Command& watch = Begin(words);
        const std::string descriptors = "/proc/" + std::to_string(watch.process.Pid()) + "/fdinfo/";
        EXPECT_TRUE(Eventually([&] {
            std::string all;
            for (int fd = 0; fd < 10; ++fd) {
                all += ReadWholeFile(descriptors + std::to_string(fd));
            }
            return all.find("inotify wd") != std::string::npos;
        }));
        return watch;
    }
    std::string Events(const char* suffix = "") const { return ReadWholeFile(EventsPath() + suffix); }
    std::string EventsPath() const { return State(Linux::FileName::kEvents); }
};

using DryRunTest = OperatorTest;

TEST_F(DryRunTest, EverythingIsDecidedAndToldAndNoProcessIsTouched) {
    StartWithFakeManager({"--dry-run"});
    Process& frozen = StartTarget("frozen", {"burn"});
    Process& killed = StartTarget("killed", {"burn"});
    Process& staged = StartTarget("staged", {"burn", "2"});
    ASSERT_TRUE(Eventually([&] { return staged.ThreadCount() == 2; }));
    const auto standing = [&] { return frozen.Standing() + killed.Standing() + staged.Standing(); };
    const std::string before = standing();
    Kelvra::ProcessAnomalyInfo bus = Anomaly(BusDaemon(), "cpu", "kill");
    bus.processName = "kite-private-bus.conf";
    const auto pid = [](const Process& process) { return "pid " + std::to_string(process.Pid()); };
    Report({Anomaly(frozen, "cpu", "freeze"), Anomaly(killed, "cpu", "kill"), bus},
           "dry run: FREEZE of " + pid(frozen) + " (frozen) done");
    ExpectLogged({"dry run: KILL of " + pid(killed) + " (killed) done",
                  "dry run: KILL of " + pid(BusDaemon()) +
                      " (kite-private-bus.conf) failed: Operation not permitted"});
    for (const char* stage : {kSuppressed, "process is freezed", "kill process for quota exceed"}) {
        Report({Anomaly(staged, "cpu_ext", "kill")}, stage);
    }
    Expect(0, {"treated"}, {"dry run, would be: frozen (" + pid(frozen)});
    for (const Process* process : {&frozen, &killed, &staged}) {
        EXPECT_TRUE(process->Runs());
    }
    EXPECT_EQ(before, standing());
    ExpectNoTraces();
    EXPECT_THAT(LinesOf(Events()), testing::AllOf(testing::SizeIs(6 + 6 + 2),
                                                  testing::Each(testing::HasSubstr("\"DRY_RUN\":true"))));
}

using TreatedTest = OperatorTest;

TEST_F(TreatedTest, AnAdministratorLetsAProcessGoAndOthersMayNot) {
    SetTokens(R"({"tokens": [{"uid": 0, "process_name": "svcdb",
                              "permissions": ["kite.permission.MANAGE_TREATMENTS"]},
                             {"uid": 61214, "process_name": "reader", "permissions": ["kite.permission.DUMP"]},
                             {"uid": 61913, "process_name": "resource_quota_control"}]})");
    StartWithFakeManager();
    Process& hog = StartTarget("hog", {"burn", "2"});
    ASSERT_TRUE(Eventually([&] { return hog.ThreadCount() == 2; }));
    const std::string pid = std::to_string(hog.Pid());
    const std::string before = hog.Standing();
    Report({Anomaly(hog, "cpu_ext", "kill")}, kSuppressed);
    Report({Anomaly(hog, "mem", "freeze")}, kFrozen);

    Expect(4, {"treated"}, {"kite.permission.MANAGE_TREATMENTS"}, kUntrustedUid);
    for (const uid_t uid : {kUntrustedUid, kKelvraUid}) {
        Expect(4, {"release", pid}, {"may not"}, uid);
    }
    EXPECT_TRUE(hog.StandsStill());
    Expect(0, {"treated"},
           {"hog (pid " + pid + "), suppressed since 2", ", frozen since 2",
            ", without an end; last report before: mem "},
           kKelvraUid);
    Expect(7, {"release", std::to_string(getpid())});
    Expect(6, {"release", std::to_string(INT32_MAX)});
    Expect(0, {"release", pid});
    EXPECT_TRUE(hog.Runs());
    EXPECT_EQ(before, hog.Standing());
    ExpectNoTraces();
    ExpectContains(Events(), {"\"RESULT\":0,\"BY_UID\":0}"});
    Expect(7, {"release", pid});
    Expect(0, {"treated", "--json"}, {R"({"dry_run":false,"treated":[]})"});
    ExpectLogged({"there is nothing to be undone (any more)", kSuppressionEnded});
    ExpectPromptAnswer();
}

TEST_F(TreatedTest, WhatAKilledHostLeftIsNamedAndADryRunLeavesItAlone) {
    StartWithFakeManager();
    Process& frozen = StartTarget("frozen", {"burn"});
    Report({Anomaly(frozen, "cpu", "freeze")}, kFrozen);
    KillQuotaHost();
    Expect(3, {"treated"}, {"pid " + std::to_string(frozen.Pid()), "kite_host --release --run "});
    ExpectIn(StartQuotaHost({"--dry-run"}).log, {"start."});
    EXPECT_TRUE(frozen.StandsStill());
    EXPECT_EQ(0, StopQuotaHost());
    EXPECT_TRUE(frozen.StandsStill());
    EXPECT_EQ(0, Release());
    EXPECT_TRUE(frozen.Runs());
    ExpectContains(Events(), {"left by a host that was killed"});
}

using WatchTest = OperatorTest;

TEST_F(WatchTest, EachReportAndWhatComesOfItIsTold) {
    Command& watch = StartWatch();
    Command& json = StartWatch({"--json"});
    FakeManager& manager = StartWithFakeManager();
    Process& victim = StartTarget("victim", {"idle"});
    Kelvra::ProcessAnomalyInfo hostile = Anomaly(victim, "io", "kill");
    hostile.processName = "evil\x1b[2J\n\xc2\x9b\x7f";
    ASSERT_EQ(0, manager.Report({Anomaly(victim, "cpu", "warning"), hostile}));
    const std::string who = "victim (pid " + std::to_string(victim.Pid()) + ")";
    ExpectIn(watch.output, {who + " of uid 20001: cpu ", " % of a core over ", "a warning, nothing is done",
                            "evil\\x1b[2J\\x0a\\xc2\\x9b\\x7f (pid "});
    ExpectIn(json.output, {"evil"});

    // No clock tells such a time. And the file is as full as it gets, so that the next event begins another.
    std::ofstream(EventsPath(), std::ios::app)
        << R"({"time":9223372036854775807,"domain":"KITE","name":"REPORT","PROCESS_NAME":"timeless","PID":7,)"
        << R"("ACTION":"kill"})" << '\n'
        << std::string(8 << 20, 'x') << '\n';
    ExpectIn(watch.output, {"is not an event"});
    ASSERT_EQ(0, manager.Report({Anomaly(victim, "mem", "kill")}));
    ExpectIn(watch.output, {"report          " + who, "killed          " + who + ", by SIGKILL, Kill Reason",
                            "event           PROCESS_KILL of " + who});
    EXPECT_EQ(size_t{8} << 20, Events(".1").size() & ~size_t{0xFFFF});
    EXPECT_TRUE(Eventually([&] { return watch.output.Contains("no action       evil"); }));
    for (const char* wrong : {"no action       victim", "timeless", "\x1b"}) {
        EXPECT_FALSE(watch.output.Contains(wrong)) << wrong;
    }
    EXPECT_EQ(3U, LinesOf(Events()).size());
    for (const std::string& event : LinesOf(Events())) {
        ExpectIn(json.output, {event});
    }
    Command& history = StartWatch({"--history"});
    ExpectIn(history.output, {"a warning, nothing is done", "killed"});
    for (Command* command : {&watch, &json, &history}) {
        command->process.Signal(SIGINT);
        EXPECT_EQ(0, command->process.AwaitExit());
    }
}

TEST_F(WatchTest, TheRecordedHistoryIsToldInFull) {
    const std::string report =
        R"(,"domain":"KITE","name":"REPORT","PID":8,"PROCESS_NAME":"twin","UID":7,)"
        R"("RESOURCE_TYPE":"cpu","RULE_ID":3,"RESOURCE":83,"DURATION":5,"ACTION":"kill"})";
    WriteWholeFile(EventsPath(), R"({"time":1700000000000)" + report + R"(
{"time":1700000000001,"domain":"KITE","name":"KILL","PID":9,"PROCESS_NAME":"twin","FORM":"SIGKILL","RESULT":1}
{"time":1700000005000)" + report + R"(
{"time":1700000005001,"domain":"KITE","name":"RELEASE","PID":8,"PROCESS_NAME":"twin","REASON":"asked for","RESULT":0,"BY_UID":5,"DRY_RUN":true}
)");
    Command& fromNow = StartWatch();
    Command& history = StartWatch({"--history"});
    ExpectIn(history.output, {"released"});
    const std::string told = "twin (pid 8) of uid 7: cpu 83 % of a core over 5 s, rule 3, action \"kill\"";
    using testing::HasSubstr;
    EXPECT_THAT(LinesOf(history.output.Text()),
                testing::ElementsAre(
                    HasSubstr("report          " + told),
                    HasSubstr("not killed      twin (pid 9): Operation not permitted, by SIGKILL"),
                    HasSubstr("no action       twin (pid 8) since its report: it is exempt"),
                    HasSubstr("report          " + told),
                    HasSubstr("released        dry run, nothing is done: twin (pid 8), asked for by uid 5")));
    EXPECT_EQ("", fromNow.output.Text());
    // The clock has been set back since.
    std::ofstream(EventsPath(), std::ios::app) << R"({"time":9000000000000)" << report << '\n';
    ExpectIn(history.output, {"report          " + told, "no action       twin (pid 8)"});
}

TEST_F(WatchTest, AFileThatCameAndWentBetweenTwoLooksIsTold) {
    const auto add = [&](const std::string& name) {
        std::ofstream(EventsPath(), std::ios::app)
            << R"({"time":1,"domain":"KITE","name":")" << name << "\"}\n";
    };
    Command& watch = StartWatch();
    add("FIRST");
    ExpectIn(watch.output, {"FIRST"});
    watch.process.Signal(SIGSTOP);
    for (const char* name : {"SECOND", "THIRD"}) {
        std::filesystem::rename(EventsPath(), EventsPath() + ".1");
        add(name);
    }
    watch.process.Signal(SIGCONT);
    ExpectIn(watch.output, {"SECOND", "THIRD"});
}

}  // namespace KITE::Integration
