#pragma once

#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>

#include "fake_platform.h"
#include "iresource_quota_control.h"
#include "singleton.h"

namespace KITE::ResourceQuotaCtl {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

// What was recorded while loading, before any test ran.
inline const std::vector<std::string>& LoadTimeCalls() {
    static const std::vector<std::string> calls = Fake::Platform::Get().Calls();
    return calls;
}

// Gives this process its own view of the mounts. Where the root is no mount point (a chroot), what is mounted
// may be seen outside too, until the test takes it away.
inline bool UnshareMounts() {
    return unshare(CLONE_NEWNS) == 0 &&
           (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 || errno == EINVAL);
}

// A report of a process that is no application unless the type says so.
inline Kelvra::ProcessAnomalyInfo Report(const std::string& resType, const std::string& action,
                                         std::vector<uint32_t> conditions = {}, int32_t processType = 0,
                                         int32_t pid = 12, int32_t uid = 34) {
    Kelvra::ProcessAnomalyInfo info;
    info.duration = 60;
    info.resource = 95;
    info.uid = uid;
    info.pid = pid;
    info.id = 7;
    info.processType = processType;
    info.action = action;
    info.resType = resType;
    info.processName = "foo";
    info.conditions = std::move(conditions);
    return info;
}

// What a kill of a process "foo" that is accepted leads to.
inline std::vector<std::string> KillTrace(const std::string& pid, const std::string& resType,
                                          const std::string& reason, const std::string& eventResult = "0") {
    return {
        "I process pid:" + pid + ", resType:" + resType + ", processName: foo",
        "KillProcess({killReason=" + reason + ", pid=" + pid + ", processName=foo})",
        "QuillRec::Write(FRAMEWORK, PROCESS_KILL, 1, PID=" + pid + " PROCESS_NAME=foo MSG=" + reason + ")",
        "I quillrec write result=" + eventResult + ", send event [FRAMEWORK,PROCESS_KILL], pid=" + pid +
            ", processName=foo, msg=" + reason};
}

// A platform with one process, pid 12 named "foo", and a caller who may do everything; and a folder of
// configuration layers that are merged in the order of their creation.
class ServiceTest : public ::testing::Test {
  protected:
    ServiceTest() {
        LoadTimeCalls();
        platform.Reset();
        platform.files["/proc/12/cmdline"] = "foo";
        platform.nativeProcesses = {{kCaller, "svcdb"}};
        platform.permissions = {{kCaller, "kite.permission.DUMP"}};
        platform.callingToken = platform.firstToken = kCaller;
    }
    ~ServiceTest() override { std::filesystem::remove_all(folder_); }

    // Writes a quota file and adds its layer to the configuration directories.
    std::string AddLayer(const std::string& content) {
        const auto layer = folder_ / std::to_string(layers_++);
        std::filesystem::create_directories(layer / "etc/efficiency_manager");
        const auto file = layer / "etc/efficiency_manager/process_resource_limit.json";
        std::ofstream(file) << content;
        platform.configDirectories.push_back(layer);
        return file;
    }

    // A quota file's text with the given elements of "quotas", apostrophes standing for quotation marks.
    static std::string Quotas(const std::string& entries) { return Json("{'quotas':[" + entries + "]}"); }
    static std::string Json(std::string text) {
        std::ranges::replace(text, '\'', '"');
        return text;
    }
    static std::string Entry(const std::string& name, const std::string& parent, const std::string& quotas) {
        return "{'process_name':'" + name + "','inherit':'" + parent + "','process_quotas':{" + quotas + "}}";
    }
    // One resource's list with one rule of the given id.
    static std::string Rule(const std::string& resource, int id) {
        return "'" + resource + "':[{'condition':[],'id':" + std::to_string(id) +
               ",'resource_quota':100,'duration':60,'action':'kill'}]";
    }

    // What the action leads to, but for the lines and calls of some sources.
    std::vector<std::string> TraceOf(const std::function<void()>& action,
                                     std::initializer_list<std::string_view> without = {}) {
        platform.ClearTrace();
        action();
        return platform.Trace(without);
    }

    // A request to the service as the transport hands it over, with the pids that the first of the two takes.
    static MessageParcel Ask(uint32_t code, const std::vector<int32_t>& pids) {
        MessageParcel request;
        MessageParcel reply;
        MessageOption option;
        request.WriteInterfaceToken(IResourceQuotaControl::GetDescriptor());
        request.WriteInt32Vector(pids);
        auto* service = dynamic_cast<IRemoteObject*>(Fake::Platform::Get().registeredAbility);
        EXPECT_EQ(service->SendRequest(code, request, reply, option), ERR_OK);
        return reply;
    }

    static constexpr uint32_t kCaller = 7;
    Fake::Platform& platform = Fake::Platform::Get();
    SystemAbility& service = *platform.registeredAbility;

  private:
    const std::filesystem::path folder_ = [] {
        std::string name = std::filesystem::temp_directory_path() / "quota_test_XXXXXX";
        return std::filesystem::path(mkdtemp(name.data()));
    }();
    int layers_ = 0;
};

}  // namespace KITE::ResourceQuotaCtl
