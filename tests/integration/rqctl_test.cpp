#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "rqctl_fixture.h"

namespace KITE::Integration {

namespace fs = std::filesystem;

class RqctlTest : public RqctlFixture {
  protected:
    std::string Plot() {
        const std::string page = Directory() + "/page.html";
        Expect(0, {"plot", "--output", page});
        return ReadWholeFile(page);
    }
};

TEST_F(RqctlTest, AsksTheServiceAndExplainsWhatItIsTold) {
    SetPolicy({Rule("ext_a", "cpu", 10, "kill", 300)});
    StartWithFakeManager();
    struct Case {
        uid_t uid;
        std::vector<std::string> words;
        int status;
        const char* pattern;
    };
    const std::string self = std::to_string(getpid());
    const Case cases[] = {
        {kTrustedUid, {"dump", "DumpConfig"}, 0, "process name is ext_a, resource is 10, .*"},
        {kTrustedUid, {"dump"}, 0, "Resource quota control dump options:\n.*"},
        {kUntrustedUid, {"dump"}, 4, ".*0x261000C.*is debuggable\n.*uid 20001 lacks .*DUMP.*"},
        {kTrustedUid, {"running-time"}, 0, "ext_a  300\n"},
        {kTrustedUid, {"running-time", "--json"}, 0, "\\{\"ext_a\":300\\}\n"},
        {kUntrustedUid, {"running-time"}, 4, ".*svcdb.*uid 20001 is not listed.*"},
        {kTrustedUid, {"io-bytes", "4194304", self}, 0, " *4194304 +unreadable\n *[0-9]+ +[0-9]+ .*\n"},
        {kTrustedUid,
         {"io-bytes", "--json", "4194304"},
         0,
         "\\[\\{\"pid\":4194304,\"write_bytes\":null\\}\\]\n"},
        {kQuotaUid, {"io-bytes", self}, 4, ".*is \"resource_quota_control\"\\.\n"},
        {kTrustedUid, {"io-bytes", "0"}, 105, ".*"},
        {kTrustedUid, {"io-bytes"}, 106, ".*PID.*"},
        {kTrustedUid, {}, 106, ".*"},
        {kTrustedUid,
         {"plot", "--state", "/none"},
         5,
         "rqctl: /none/events.jsonl: No such file or directory\n"},
        {kTrustedUid, {"plot"}, 0, "<!DOCTYPE html>.*No process was .*"},
        {kTrustedUid, {"running-time", "--bus", "unix:path=/none"}, 3, "rqctl: cannot connect .*"},
    };
    for (const auto& [uid, words, status, pattern] : cases) {
        const Outcome outcome = Rqctl(words, uid);
        EXPECT_EQ(status, outcome.status) << testing::PrintToString(words) << outcome.text;
        EXPECT_THAT(outcome.text, testing::MatchesRegex(pattern)) << testing::PrintToString(words);
    }
    // More than one request takes.
    std::vector<std::string> many(2050, self);
    many[0] = "io-bytes";
    many.emplace_back("--json");
    EXPECT_EQ(2049U, nlohmann::json::parse(Rqctl(many).text).size());
    EXPECT_EQ(0, StopQuotaHost());
    Expect(3, {"running-time"});
}

TEST_F(RqctlTest, TellsABuildThatIsNotDebuggable) {
    SetParameters("{}");
    StartWithFakeManager();
    Expect(4, {"dump"}, {"is not debuggable", "uid 0 has the permission"});
}

TEST_F(RqctlTest, ReplacesTheDeviceStateAsAWhole) {
    const auto status = [this] {
        struct stat its {};
        EXPECT_EQ(0, stat(DeviceState().c_str(), &its));
        return its;
    };
    SetDeviceState(R"({"screen_on": true, "extensions": [{"uid": 7, "pid": 8}]})");
    ASSERT_EQ(0, chmod(DeviceState().c_str(), 0640));
    ASSERT_EQ(0, chown(DeviceState().c_str(), kQuotaUid, kKelvraUid));
    const struct stat before = status();
    const fs::path other = Directory() + "/other_name";
    fs::create_hard_link(DeviceState(), other);
    Expect(0, {"device", "screen", "off", "app:20001", "412,413", "foreground:20001", "on", "task:20001:412",
               "1", "process-resources:20001:412", "65", "extension:7", "none"});
    const struct stat after = status();
    EXPECT_NE(before.st_ino, after.st_ino);
    EXPECT_EQ(std::tie(before.st_mode, before.st_uid, before.st_gid),
              std::tie(after.st_mode, after.st_uid, after.st_gid));
    ExpectContains(ReadWholeFile(other), {"extensions\": [{"});  // the old file is as it was
    const nlohmann::json expected = nlohmann::json::parse(
        R"({"screen_on": false, "extensions": [], "continuous_tasks": [{"uid": 20001, "pid": 412, "types": [1]}],
            "applications": [{"uid": 20001, "processes": [412, 413], "foreground": true}],
            "efficiency_resources": {"processes": [{"uid": 20001, "pid": 412, "resources": 65}]}})");
    EXPECT_EQ(expected, nlohmann::json::parse(Rqctl({"device", "--json"}).text));
    Expect(0, {"device"}, {"application, uid 20001: processes 412, 413; "});

    const std::string content = ReadWholeFile(DeviceState());
    Expect(5, {"device", "render:20001", "0"});
    Expect(105, {"device", "screen", "dim"});
    Expect(105, {"device", "foreground", "on"});
    Expect(105, {"device", "app-resources:1:2", "1,2"});
    Expect(5, {"device", "screen", "on"}, {}, kUntrustedUid);
    EXPECT_EQ(content, ReadWholeFile(DeviceState()));
    fs::rename(DeviceState(), other);
    fs::create_symlink(other, DeviceState());
    Expect(5, {"device", "screen", "on"});
    EXPECT_EQ(content, ReadWholeFile(other));
}

TEST_F(RqctlTest, SettersAtTheSameTimeLoseNothing) {
    std::vector<Command*> setters;
    for (int uid = 1; uid <= 8; ++uid) {
        setters.push_back(&Begin({"device", "window:" + std::to_string(uid), "on"}));
    }
    for (Command* setter : setters) {
        EXPECT_EQ(0, setter->process.AwaitExit());
    }
    EXPECT_EQ(8U, nlohmann::json::parse(ReadWholeFile(DeviceState())).at("applications").size());
}

TEST_F(RqctlTest, PlotsWhatWasRecordedAndLetsNoNameIntoThePage) {
    nlohmann::json event{{"time", 1'700'000'000'000},
                         {"domain", "KITE"},
                         {"name", "FREEZE"},
                         {"PID", 5},
                         {"PROCESS_NAME", "</h2><script>alert(1)</script>\"'&\x1b"},
                         {"FORM", "<img src=x>"}};
    const std::string frozen = event.dump();
    event["name"] = "KILL";
    event["RESULT"] = EPERM;
    WriteWholeFile(State() + "/events.jsonl.1",
                   frozen + "\n[[[\n{\"time\":-1,\"domain\":\"KITE\",\"name\":\"KILL\"}\n" +
                       R"({"time":1,"domain":"KITE","name":"KILL","PID":6,"nested":[[]]})" + '\n');
    WriteWholeFile(State() + "/events.jsonl", event.dump() + "\n\"half a li");
    const std::string page = Plot();
    for (const char* wrong : {"<script", "<img", "\x1b", "http:"}) {
        EXPECT_THAT(page, testing::Not(testing::HasSubstr(wrong)));
    }
    ExpectContains(page, {"&lt;/h2&gt;&lt;script&gt;alert(1)&lt;/script&gt;&quot;&#39;&amp;\\x1b",
                          "<b>F</b> frozen, <bdi>&lt;img src=x&gt;",
                          "failed: killed (Operation not permitted)", ">4 lines"});
}

TEST_F(RqctlTest, PlotsTheSamplesThatTheManagerRecorded) {
    SetParameters(
        R"({"const.debuggable": 1, "kelvra.sample_period_ms": 100, "kelvra.record_samples": true})");
    SetPolicy({Rule("hog", "cpu", 10, "kill")});
    StartWhole();
    EXPECT_EQ(SIGKILL, StartTarget("hog", {"burn"}).AwaitEnd());
    EXPECT_EQ(0, StopQuotaHost());
    const std::string page = Plot();
    const std::string label = "over 1 s; peak ";
    const size_t at = page.find(label);
    ASSERT_NE(std::string::npos, at) << page;
    EXPECT_GT(std::stod(page.substr(at + label.size())), 10);
    ExpectContains(page, {"quota 10 %, 1 s", "<b>K</b> killed"});
}

}  // namespace KITE::Integration
