#include "app_mgr_helper.h"
#include "native_process_checker.h"
#include "resource_quota_control_execute_helper.h"
#include "resource_quota_control_io_helper.h"
#include "service_fixture.h"

namespace KITE::ResourceQuotaCtl {

namespace {

constexpr uint64_t kUnreadable = 18446744073709551615U;

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
        EXPECT_THAT(platform.Log(), ElementsAre("E app_mgr_helper: " + line));
    }
    platform.appManager = manager;
    EXPECT_EQ(verify(), std::pair(true, true));
    platform.appManager = nullptr;
    platform.hasRegistry = false;
    EXPECT_EQ(verify(), std::pair(true, true)) << "a proxy once held is kept";
    const std::string matched = "I app_mgr_helper: 2 and 1 is matched";
    const std::string foreground = "I app_mgr_helper: 2 is in foreground";
    EXPECT_THAT(platform.Trace(), ElementsAre("GetAllRunningProcesses()", matched, matched,
                                              "GetForegroundApplications()", foreground, foreground));
    platform.runningProcesses = {{1, 3}};
    platform.renderProcesses = {{1, 2}, {2, 1}};
    platform.foregroundApplications = {{1}};
    EXPECT_EQ(verify(), std::pair(true, false));
    EXPECT_THAT(platform.Trace(), ElementsAre("GetAllRunningProcesses()", "GetAllRenderProcesses()",
                                              "I app_mgr_helper: Render process 2 and 1 is matched",
                                              "GetForegroundApplications()"));
}

using ActionTest = ServiceTest;

TEST_F(ActionTest, AKillSaysWhyAndIsRecordedWhenItWasAcceptedForAKnownReason) {
    using Helper = ResourceQuotaControlExecuteHelper;
    const std::pair<std::string, std::string> reasons[] = {{"io", "Kill Reason:IO Manage Control"},
                                                           {"cpu", "Kill Reason:CPU Highload"},
                                                           {"cpu_ext", "Kill Reason:CPU_EXT Highload"},
                                                           {"mem", "Kill Reason:App Memory Deterioration"}};
    platform.eventResult = 4;
    for (const auto& [resType, reason] : reasons) {
        platform.ClearTrace();
        EXPECT_EQ(Helper::KillProcessByPid(1, resType, "foo"), 0);
        EXPECT_EQ(platform.Trace(), KillTrace("1", resType, reason, "4"));
    }
    for (const char* resType : {"IO", "cpu_extra", ""}) {
        platform.ClearTrace();
        EXPECT_EQ(Helper::KillProcessByPid(1, resType, "foo"), 0);
        EXPECT_THAT(platform.Calls(), ElementsAre("KillProcess({pid=1, processName=foo})"));
    }
    platform.killResult = 13;
    platform.ClearTrace();
    EXPECT_EQ(Helper::KillProcessByPid(1, "cpu", "foo"), 13);
    EXPECT_EQ(platform.Trace().size(), 2U);
    platform.ClearTrace();
    EXPECT_EQ(Helper::KillProcessByPid(0, "cpu", "foo"), -1);
    EXPECT_EQ(Helper::KillProcessByPid(-7, "cpu", "foo"), -1);
    EXPECT_THAT(platform.Trace(), IsEmpty());
    platform.freezeResult = 6;
    EXPECT_EQ(Helper::FreezeOneNativeProcess(0, 2, "foo"), 6);
    EXPECT_THAT(platform.Trace(),
                ElementsAre("OperateOneNativeProcess(0, 2, foo, -1, -1, true)",
                            "I resource_quota_control_execute_helper: freeze process, pid is 0, uid is "
                            "2, process name is foo result is 6"));
}

class IoTest : public ServiceTest {
  protected:
    std::vector<std::string> ReadOwn(bool expected) {
        platform.ClearTrace();
        uint64_t bytes = 0;
        EXPECT_EQ(ResourceQuotaControlIoHelper::GetWriteBytesByPid(getpid(), bytes), expected);
        read_ = bytes;
        return platform.Trace();
    }

    uint64_t read_ = 0;
};

TEST_F(IoTest, ThereIsOneEntryForEachPidInOrder) {
    std::vector<uint64_t> bytes{5};
    ResourceQuotaControlIoHelper::GetIoWriteBytes({}, bytes);
    EXPECT_THAT(bytes, ElementsAre(5));
    EXPECT_THAT(platform.Trace(),
                ElementsAre("E resource_quota_control_io_helper: pid vector size is invalid."));
    platform.ClearTrace();
    ResourceQuotaControlIoHelper::GetIoWriteBytes({getpid(), 99999999, getpid()}, bytes);
    EXPECT_THAT(bytes, ElementsAre(5, testing::Ne(kUnreadable), kUnreadable, testing::Ne(kUnreadable)));
    EXPECT_THAT(
        platform.Trace(),
        ElementsAre(
            "E resource_quota_control_io_helper: file /proc/99999999/io not found, can not get io data.",
            "I resource_quota_control_io_helper: writeBytes.size() 4"));
}

TEST_F(IoTest, AValueIsWhatFollowsTheFirstColon) {
    const std::pair<const char*, uint64_t> cases[] = {{"write_bytes: 4096", 4096},
                                                      {"write_bytes:", 0},
                                                      {":12:34", 12},
                                                      {"a: \t7x8", 7},
                                                      {"a: 99999999999999999999", kUnreadable}};
    for (const auto& [line, expected] : cases) {
        uint64_t value = 77;
        EXPECT_TRUE(ResourceQuotaControlIoHelper::GetValueFromStr(line, value));
        EXPECT_EQ(value, expected) << line;
    }
    uint64_t value = 77;
    EXPECT_FALSE(ResourceQuotaControlIoHelper::GetValueFromStr("", value));
    EXPECT_FALSE(ResourceQuotaControlIoHelper::GetValueFromStr("write_bytes 4", value));
    EXPECT_EQ(value, 77U);
}

TEST_F(IoTest, OnlyTheFirstLineThatBeginsWithTheKeyCounts) {
    const std::string path = "/proc/" + std::to_string(getpid()) + "/io";
    std::string name = std::filesystem::temp_directory_path() / "io_XXXXXX";
    const int fd = mkstemp(name.data());
    if (!UnshareMounts() || mount(name.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "needs the right to mount";
    }
    std::ofstream(name) << "wchar: 1\ncancelled_write_bytes: 2\nwrite_bytes: 3\nwrite_bytes: 4\n";
    EXPECT_THAT(ReadOwn(true), IsEmpty());
    EXPECT_EQ(read_, 3U);
    std::ofstream(name) << std::string(1020, 'x') << "\nwrite_bytes: 5" << std::string(2000, ' ') << "\n";
    ReadOwn(true);
    EXPECT_EQ(read_, 5U);
    std::ofstream(name) << "write_bytes:";
    ReadOwn(true);
    EXPECT_EQ(read_, 0U);
    std::ofstream(name) << "xwrite_bytes: 3\nwrite_bytes 4\ncancelled_write_bytes: 2\n";
    EXPECT_THAT(
        ReadOwn(false),
        ElementsAre("E resource_quota_control_io_helper: Failed to get io data from file " + path + "."));
    umount(path.c_str());
    close(fd);
    std::filesystem::remove(name);
}

}  // namespace

}  // namespace KITE::ResourceQuotaCtl
