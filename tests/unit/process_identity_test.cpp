#include "app_mgr_helper.h"
#include "native_process_checker.h"
#include "service_fixture.h"

namespace KITE::ResourceQuotaCtl {

namespace {

using IdentityTest = ServiceTest;

TEST_F(IdentityTest, AProcessIsKnownByThe15BytesBehindTheLastSlash) {
    using namespace std::string_literals;
    const std::tuple<std::string, std::string, bool> cases[] = {
        {"/system/bin/foo_daemon\0--flag\0"s, "foo_daemon", true},
        {"/system/bin/foo_daemon\0--flag\0"s, "my_foo_daemon_2", true},
        {"/system/bin/foo_daemon\0--flag\0"s, "foo_daemo", false},
        {"/system/bin/abcdefghijklmnopqrstu\0"s, "abcdefghijklmnopqrstu", true},
        {"/system/bin/abcdefghijklmnopqrstu\0"s, "abcdefghijklmno", true},
        {"/system/bin/abcdefghijklmnopqrstu\0"s, "abcdefgh", false},
        {"/system/bin/abcdefghijklmnopqrstu\0"s, "abcdefghijklmn", false},
        {"foo\0--path=/data/x\0"s, "x", true},
        {"foo\0--path=/data/x\0"s, "foo", false},
        {"foo\0bar\0"s, "foo", true},
        {"/bin/\0"s, "bin", false},
        {"foo/"s, "foo/", false},
        {""s, "", false},
    };
    const NatvieProcessChecker checker;
    for (const auto& [cmdline, name, expected] : cases) {
        platform.files["/proc/-5/cmdline"] = cmdline;
        EXPECT_EQ(checker.VerifyPidAndProcessName(-5, name), expected) << cmdline << ' ' << name;
    }
    platform.ClearTrace();
    EXPECT_FALSE(checker.VerifyPidAndProcessName(6, "foo"));
    EXPECT_THAT(platform.Trace(), ElementsAre("LoadStringFromFile(/proc/6/cmdline)"));
}

TEST_F(IdentityTest, TheApplicationManagerIsReachedOnceItCanBe) {
    AppMgrHelper helper;
    const auto manager = platform.appManager;
    platform.runningProcesses = {{1, 2}, {1, 2}, {2, 2}};
    platform.foregroundApplications = {{2}, {2}};
    const auto verify = [&] {
        platform.ClearTrace();
        return helper.VerifyAppPidAndCheckForeground(2, 1);
    };
    const std::tuple<bool, sptr<IRemoteObject>, std::string> unreachable[] = {
        {false, manager, "get SystemAbilityManager failed"},
        {true, nullptr, "get App Manager Service failed"},
        {true, MakeSptr<IPCObjectStub>(u"another interface", false), "get app mgr proxy failed!"}};
    for (const auto& [hasRegistry, object, line] : unreachable) {
        platform.hasRegistry = hasRegistry;
        platform.appManager = object;
        EXPECT_EQ(verify(), std::pair(false, false));
        EXPECT_THAT(platform.Log(), ElementsAre("E " + line));
    }
    platform.appManager = manager;
    EXPECT_EQ(verify(), std::pair(true, true));
    platform.appManager = nullptr;
    platform.hasRegistry = false;
    EXPECT_EQ(verify(), std::pair(true, true)) << "a proxy once held is kept";
    const std::string matched = "I 2 and 1 is matched";
    const std::string foreground = "I 2 is in foreground";
    EXPECT_THAT(platform.Trace(), ElementsAre("GetAllRunningProcesses()", matched, matched,
                                              "GetForegroundApplications()", foreground, foreground));
    platform.runningProcesses = {{1, 3}};
    platform.renderProcesses = {{1, 2}, {2, 1}};
    platform.foregroundApplications = {{1}};
    EXPECT_EQ(verify(), std::pair(true, false));
    EXPECT_THAT(platform.Trace(),
                ElementsAre("GetAllRunningProcesses()", "GetAllRenderProcesses()",
                            "I Render process 2 and 1 is matched", "GetForegroundApplications()"));
}

}  // namespace

}  // namespace KITE::ResourceQuotaCtl
