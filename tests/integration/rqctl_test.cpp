#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "rqctl_fixture.h"

namespace KITE::Integration {

namespace fs = std::filesystem;

class RqctlTest : public RqctlFixture {
  protected:
    std::string Plot() {
        const std::string page = Directory() + "/page.html";
        EXPECT_EQ(0, Rqctl({"plot", "--output", page}).status);
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
    EXPECT_EQ(3, Rqctl({"running-time"}).status);
}

TEST_F(RqctlTest, TellsABuildThatIsNotDebuggable) {
    SetParameters("{}");
    StartWithFakeManager();
    const Outcome outcome = Rqctl({"dump"});
    EXPECT_EQ(4, outcome.status);
    EXPECT_NE(std::string::npos, outcome.text.find("is not debuggable")) << outcome.text;
    EXPECT_NE(std::string::npos, outcome.text.find("uid 0 has the permission")) << outcome.text;
}

TEST_F(RqctlTest, ReplacesTheDeviceStateAsAWhole) {
    SetDeviceState(R"({"screen_on": true, "extensions": [{"uid": 7, "pid": 8}]})");
    ASSERT_EQ(0, chmod(DeviceState().c_str(), 0640));
    ASSERT_EQ(0, chown(DeviceState().c_str(), kQuotaUid, kKelvraUid));
    struct stat before {};
    ASSERT_EQ(0, stat(DeviceState().c_str(), &before));
    const fs::path other = Directory() + "/other_name";
    fs::create_hard_link(DeviceState(), other);
    EXPECT_EQ(0, Rqctl({"device", "screen", "off", "app:20001", "412,413", "foreground:20001", "on",
                        "task:20001:412", "1", "process-resources:20001:412", "65", "extension:7", "none"})
                     .status);
    struct stat after {};
    ASSERT_EQ(0, stat(DeviceState().c_str(), &after));
    EXPECT_NE(before.st_ino, after.st_ino);
    EXPECT_EQ(before.st_mode, after.st_mode);
    EXPECT_EQ(before.st_uid, after.st_uid);
    EXPECT_EQ(before.st_gid, after.st_gid);
    EXPECT_NE(std::string::npos, ReadWholeFile(other).find("extensions\": [{")) << "the old file was changed";
    const nlohmann::json expected = nlohmann::json::parse(
        R"({"screen_on": false, "extensions": [], "continuous_tasks": [{"uid": 20001, "pid": 412, "types": [1]}],
            "applications": [{"uid": 20001, "processes": [412, 413], "foreground": true}],
            "efficiency_resources": {"processes": [{"uid": 20001, "pid": 412, "resources": 65}]}})");
    EXPECT_EQ(expected, nlohmann::json::parse(Rqctl({"device", "--json"}).text));
    const Outcome shown = Rqctl({"device"});
    EXPECT_NE(std::string::npos, shown.text.find("application, uid 20001: processes 412, 413; "))
        << shown.text;

    const std::string content = ReadWholeFile(DeviceState());
    EXPECT_EQ(5, Rqctl({"device", "render:20001", "0"}).status);
    EXPECT_EQ(105, Rqctl({"device", "screen", "dim"}).status);
    EXPECT_EQ(105, Rqctl({"device", "foreground", "on"}).status);
    EXPECT_EQ(105, Rqctl({"device", "app-resources:1:2", "1,2"}).status);
    EXPECT_EQ(5, Rqctl({"device", "screen", "on"}, kUntrustedUid).status);
    EXPECT_EQ(content, ReadWholeFile(DeviceState()));
    fs::rename(DeviceState(), other);
    fs::create_symlink(other, DeviceState());
    EXPECT_EQ(5, Rqctl({"device", "screen", "on"}).status);
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
    EXPECT_EQ(std::string::npos, page.find("<script"));
    EXPECT_EQ(std::string::npos, page.find("<img"));
    EXPECT_EQ(std::string::npos, page.find('\x1b'));
    EXPECT_EQ(std::string::npos, page.find("http:"));
    EXPECT_NE(std::string::npos,
              page.find("&lt;/h2&gt;&lt;script&gt;alert(1)&lt;/script&gt;&quot;&#39;&amp;\\x1b"));
    EXPECT_NE(std::string::npos, page.find("<b>F</b> frozen, <bdi>&lt;img src=x&gt;"));
    EXPECT_NE(std::string::npos, page.find("failed: killed (Operation not permitted)"));
    EXPECT_NE(std::string::npos, page.find(">4 lines"));
}

TEST_F(RqctlTest, PlotsTheSamplesThatTheManagerRecorded) {
    SetParameters(
        R"({"const.debuggable": 1, "kelvra.sample_period_ms": 100, "kelvra.record_samples": true})");
    fs::create_directory(State() + "-samples");
    ASSERT_EQ(0, chown((State() + "-samples").c_str(), kKelvraUid, kKelvraUid));
    SetPolicy({Rule("hog", "cpu", 10, "kill")});
    StartWhole();
    EXPECT_EQ(SIGKILL, StartTarget("hog", {"burn"}).AwaitEnd());
    EXPECT_EQ(0, StopQuotaHost());
    const std::string page = Plot();
    const std::string label = "over 1 s; peak ";
    const size_t at = page.find(label);
    ASSERT_NE(std::string::npos, at) << page;
    EXPECT_GT(std::stod(page.substr(at + label.size())), 10);
    EXPECT_NE(std::string::npos, page.find("quota 10 %, 1 s"));
    EXPECT_NE(std::string::npos, page.find("<b>K</b> killed"));
}

}  // namespace KITE::Integration
