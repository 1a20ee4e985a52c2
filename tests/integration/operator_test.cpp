#include <filesystem>
#include <fstream>

#include "rqctl_fixture.h"

// What an operator sees and does: the dry run, and rqctl's watch, treated and release.
namespace KITE::Integration {

namespace {

std::vector<std::string> LinesOf(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace

class OperatorTest : public RqctlFixture {
  protected:
    // Expects the exit status, and that each of the texts is told.
    void Expect(int status, const std::vector<std::string>& words, const std::vector<std::string>& texts,
                uid_t uid = kTrustedUid) {
        const Outcome outcome = Rqctl(words, uid);
        EXPECT_EQ(status, outcome.status) << words.front() << ": " << outcome.text;
        for (const std::string& text : texts) {
            EXPECT_THAT(outcome.text, testing::HasSubstr(text));
        }
    }
    Command& StartWatch(const std::vector<std::string>& options) {
        std::vector<std::string> words{"watch"};
        words.insert(words.end(), options.begin(), options.end());
        Command& watch = Begin(words);
        const std::string descriptors = "/proc/" + std::to_string(watch.process.Pid()) + "/fdinfo/";
        EXPECT_TRUE(Eventually([&] {
            for (int fd = 0; fd < 10; ++fd) {
                if (ReadWholeFile(descriptors + std::to_string(fd)).find("inotify wd") != std::string::npos) {
                    return true;
                }
            }
            return false;
        }));
        return watch;
    }
    std::string Events(const char* suffix = "") const {
        return ReadWholeFile(State() + "/events.jsonl" + suffix);
    }
};

using DryRunTest = OperatorTest;

TEST_F(DryRunTest, EverythingIsDecidedAndToldAndNobodyIsTouched) {
    FakeManager& manager = StartWithFakeManager({"--dry-run"});
    LogFile& log = QuotaHost().log;
    Process& frozen = StartTarget("frozen", {"burn"});
    Process& killed = StartTarget("killed", {"burn"});
    Process& staged = StartTarget("staged", {"burn", "2"});
    ASSERT_TRUE(Eventually([&] { return staged.ThreadCount() == 2; }));
    const std::string before = frozen.Standing() + killed.Standing() + staged.Standing();
    Kelvra::ProcessAnomalyInfo bus = Anomaly(BusDaemon(), "cpu", "kill");
    bus.processName = "kite-private-bus.conf";
    ASSERT_EQ(0, manager.Report({Anomaly(frozen, "cpu", "freeze"), Anomaly(killed, "cpu", "kill"), bus}));
    EXPECT_TRUE(log.Await("dry run: FREEZE of pid " + std::to_string(frozen.Pid()) + " (frozen) done"));
    EXPECT_TRUE(log.Await("dry run: KILL of pid " + std::to_string(killed.Pid()) + " (killed) done"));
    EXPECT_TRUE(log.Await("dry run: KILL of pid " + std::to_string(BusDaemon().Pid()) +
                          " (kite-private-bus.conf) failed: Operation not permitted"));
    for (const char* stage :
         {"process enter suppress", "process is freezed", "kill process for quota exceed"}) {
        ASSERT_EQ(0, manager.Report({Anomaly(staged, "cpu_ext", "kill")}));
        ASSERT_TRUE(log.Await(stage));
    }
    Expect(0, {"treated"}, {"dry run, would be: frozen (pid " + std::to_string(frozen.Pid())});
    for (const Process* process : {&frozen, &killed, &staged}) {
        EXPECT_TRUE(process->Runs());
    }
    EXPECT_EQ(before, frozen.Standing() + killed.Standing() + staged.Standing());
    EXPECT_EQ(std::vector<std::string>(), TracesOfTreatments());
    const std::vector<std::string> events = LinesOf(Events());
    EXPECT_EQ(6 + 6 + 2, std::ranges::count_if(events,
                                               [](const std::string& line) {
                                                   return line.find("\"DRY_RUN\":true") != std::string::npos;
                                               }))
        << Events();
    EXPECT_EQ(14U, events.size());
}

using TreatedTest = OperatorTest;

TEST_F(TreatedTest, AnAdministratorLetsAProcessGoAndNobodyElseDoes) {
    SetTokens(R"({"tokens": [{"uid": 0, "process_name": "svcdb",
                              "permissions": ["kite.permission.MANAGE_TREATMENTS"]},
                             {"uid": 61214, "process_name": "reader", "permissions": ["kite.permission.DUMP"]},
                             {"uid": 61913, "process_name": "resource_quota_control"}]})");
    FakeManager& manager = StartWithFakeManager();
    LogFile& log = QuotaHost().log;
    Process& hog = StartTarget("hog", {"burn", "2"});
    ASSERT_TRUE(Eventually([&] { return hog.ThreadCount() == 2; }));
    const std::string pid = std::to_string(hog.Pid());
    const std::string before = hog.Standing();
    ASSERT_EQ(0, manager.Report({Anomaly(hog, "cpu_ext", "kill")}));
    ASSERT_TRUE(log.Await("process enter suppress"));
    ASSERT_EQ(0, manager.Report({Anomaly(hog, "mem", "freeze")}));
    ASSERT_TRUE(log.Await("freeze process, pid is"));

    Expect(4, {"treated"}, {"kite.permission.MANAGE_TREATMENTS"}, kUntrustedUid);
    for (const uid_t uid : {kUntrustedUid, kKelvraUid}) {
        Expect(4, {"release", pid}, {"may not"}, uid);
    }
    EXPECT_TRUE(hog.StandsStill());
    Expect(0, {"treated"},
           {"hog (pid " + pid + "), suppressed since 2", ", frozen since 2",
            ", without an end; "
            "last report before: mem "},
           kKelvraUid);
    Expect(7, {"release", std::to_string(getpid())}, {});
    Expect(6, {"release", std::to_string(INT32_MAX)}, {});
    Expect(0, {"release", pid}, {});
    EXPECT_TRUE(hog.Runs());
    EXPECT_EQ(before, hog.Standing());
    EXPECT_EQ(std::vector<std::string>(), TracesOfTreatments());
    EXPECT_NE(std::string::npos, Events().find("\"RESULT\":0,\"BY_UID\":0}")) << Events();
    Expect(7, {"release", pid}, {});
    Expect(0, {"treated", "--json"}, {R"({"dry_run":false,"treated":[]})"});
    EXPECT_TRUE(log.Await("there is nothing to be undone (any more)"));
    EXPECT_TRUE(log.Await("process exit suppress"));
    ExpectPromptAnswer();
}

TEST_F(TreatedTest, WhatAKilledHostLeftIsNamedAndADryRunLeavesItAlone) {
    FakeManager& manager = StartWithFakeManager();
    Process& frozen = StartTarget("frozen", {"burn"});
    ASSERT_EQ(0, manager.Report({Anomaly(frozen, "cpu", "freeze")}));
    ASSERT_TRUE(QuotaHost().log.Await("freeze process, pid is"));
    QuotaHost().process.Signal(SIGKILL);
    ASSERT_TRUE(QuotaHost().process.AwaitEnd());
    Expect(3, {"treated"}, {"pid " + std::to_string(frozen.Pid()), "kite_host --release --run "});
    ASSERT_TRUE(StartQuotaHost({"--dry-run"}).log.Await("start."));
    EXPECT_TRUE(frozen.StandsStill());
    EXPECT_EQ(0, StopQuotaHost());
    EXPECT_TRUE(frozen.StandsStill());
    EXPECT_EQ(0, Release());
    EXPECT_TRUE(frozen.Runs());
    EXPECT_NE(std::string::npos, Events().find("left by a host that was killed"));
}

using WatchTest = OperatorTest;

TEST_F(WatchTest, EachReportAndWhatComesOfItIsTold) {
    Command& watch = StartWatch({});
    Command& json = StartWatch({"--json"});
    FakeManager& manager = StartWithFakeManager();
    Process& victim = StartTarget("victim", {"idle"});
    Kelvra::ProcessAnomalyInfo hostile = Anomaly(victim, "io", "kill");
    hostile.processName = "evil\x1b[2J\n\xc2\x9b\x7f";
    ASSERT_EQ(0, manager.Report({Anomaly(victim, "cpu", "warning"), hostile}));
    const std::string who = "victim (pid " + std::to_string(victim.Pid()) + ")";
    EXPECT_TRUE(watch.output.Await(who + " of uid 20001: cpu "));
    EXPECT_TRUE(watch.output.Await(" % of a core over "));
    EXPECT_TRUE(watch.output.Await("a warning, nothing is done"));
    EXPECT_TRUE(watch.output.Await("evil\\x1b[2J\\x0a\\xc2\\x9b\\x7f (pid "));
    ASSERT_TRUE(json.output.Await("evil"));

    // No clock tells such a time. And the file is as full as it gets, so that the next event begins another.
    std::ofstream(State() + "/events.jsonl", std::ios::app)
        << R"({"time":9223372036854775807,"domain":"KITE","name":"REPORT","PROCESS_NAME":"timeless","PID":7,)"
        << R"("ACTION":"kill"})" << '\n'
        << std::string(8 << 20, 'x') << '\n';
    EXPECT_TRUE(watch.output.Await("is not an event"));
    ASSERT_EQ(0, manager.Report({Anomaly(victim, "mem", "kill")}));
    EXPECT_TRUE(watch.output.Await("report          " + who));
    EXPECT_TRUE(watch.output.Await("killed          " + who + ", by SIGKILL, Kill Reason"));
    EXPECT_TRUE(watch.output.Await("event           PROCESS_KILL of " + who));
    EXPECT_EQ(size_t{8} << 20, Events(".1").size() & ~size_t{0xFFFF});
    EXPECT_TRUE(Eventually([&] { return watch.output.Contains("no action       evil"); }));
    EXPECT_FALSE(watch.output.Contains("no action       victim"));
    EXPECT_FALSE(watch.output.Contains("timeless"));
    EXPECT_FALSE(watch.output.Contains("\x1b"));
    EXPECT_EQ(3U, LinesOf(Events()).size());
    for (const std::string& event : LinesOf(Events())) {
        EXPECT_TRUE(json.output.Await(event)) << event;
    }
    Command& history = StartWatch({"--history"});
    EXPECT_TRUE(history.output.Await("a warning, nothing is done"));
    EXPECT_TRUE(history.output.Await("killed"));
    for (Command* command : {&watch, &json, &history}) {
        command->process.Signal(SIGINT);
        EXPECT_EQ(0, command->process.AwaitExit());
    }
}

TEST_F(WatchTest, TheRecordedHistoryIsToldInFull) {
    const std::string report =
        R"(,"domain":"KITE","name":"REPORT","PID":8,"PROCESS_NAME":"twin","UID":7,)"
        R"("RESOURCE_TYPE":"cpu","RULE_ID":3,"RESOURCE":83,"DURATION":5,"ACTION":"kill"})";
    WriteWholeFile(State() + "/events.jsonl", R"({"time":1700000000000)" + report + R"(
{"time":1700000000001,"domain":"KITE","name":"KILL","PID":9,"PROCESS_NAME":"twin","FORM":"SIGKILL","RESULT":1}
{"time":1700000005000)" + report + R"(
{"time":1700000005001,"domain":"KITE","name":"RELEASE","PID":8,"PROCESS_NAME":"twin","REASON":"asked for","RESULT":0,"BY_UID":5,"DRY_RUN":true}
)");
    Command& fromNow = StartWatch({});
    Command& history = StartWatch({"--history"});
    EXPECT_TRUE(history.output.Await("released"));
    const std::string told = "twin (pid 8) of uid 7: cpu 83 % of a core over 5 s, rule 3, action \"kill\"";
    const std::vector<std::string> lines = LinesOf(history.output.Text());
    const std::vector<std::string> expected{
        "report          " + told, "not killed      twin (pid 9): Operation not permitted, by SIGKILL",
        "no action       twin (pid 8) since its report: it is exempt", "report          " + told,
        "released        dry run, nothing is done: twin (pid 8), asked for by uid 5"};
    ASSERT_EQ(expected.size(), lines.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_THAT(lines[i], testing::HasSubstr(expected[i]));
    }
    EXPECT_EQ("", fromNow.output.Text());
}

TEST_F(WatchTest, AFileThatCameAndWentBetweenTwoLooksIsTold) {
    const auto add = [&](const std::string& name) {
        const std::string line = R"({"time":1,"domain":"KITE","name":")" + name + "\"}\n";
        std::ofstream(State() + "/events.jsonl", std::ios::app) << line;
    };
    const auto rotate = [&] {
        std::filesystem::rename(State() + "/events.jsonl", State() + "/events.jsonl.1");
    };
    Command& watch = StartWatch({});
    add("FIRST");
    ASSERT_TRUE(watch.output.Await("FIRST"));
    watch.process.Signal(SIGSTOP);
    for (const char* name : {"SECOND", "THIRD"}) {
        rotate();
        add(name);
    }
    watch.process.Signal(SIGCONT);
    EXPECT_TRUE(watch.output.Await("SECOND"));
    EXPECT_TRUE(watch.output.Await("THIRD"));
}

}  // namespace KITE::Integration
