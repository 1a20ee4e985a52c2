#include "device/device_state.h"
#include "app_manager.h"
#include "background_task_manager.h"
#include "platform_fixture.h"
#include "power_manager.h"
#include "runtime/platform_log.h"
#include "window_manager.h"

namespace KITE::Linux {
namespace {

using testing::AllOf, testing::ElementsAre, testing::Field, testing::FieldsAre, testing::Pointee,
    testing::Property;

class DeviceTest : public DirectoryTest {
  protected:
    void Put(std::string_view text) const { DirectoryTest::Put("device_state.json", text); }
    const std::string file_ = Path("device_state.json");
};

constexpr char kState[] = R"({
    "screen_on": false,
    "applications": [
        {"uid": 1, "processes": [10, 11], "render_processes": [12], "foreground": true},
        {"uid": 2, "processes": [20], "visible_window": true}],
    "extensions": [{"uid": 3, "pid": 30}],
    "continuous_tasks": [{"uid": 1, "pid": 10, "types": [1, 4294967295]}],
    "efficiency_resources": {"applications": [{"uid": 1, "pid": 10, "resources": 64}],
                             "processes": [{"uid": 2, "pid": 20, "resources": 1}]}})";

TEST_F(DeviceTest, TheManagersAnswerFromTheFile) {
    Put(kState);
    EXPECT_FALSE(PowerMgrClient::GetInstance().IsScreenOn());
    const sptr<IAppMgr> manager = iface_cast<IAppMgr>(AppManagerObject());
    ASSERT_TRUE(manager);
    EXPECT_TRUE(manager->AsObject() == AppManagerObject());
    std::vector<RunningProcessInfo> running;
    std::vector<RenderProcessInfo> rendering;
    std::vector<AppStateData> foreground;
    std::vector<sptr<WindowVisibilityInfo>> windows;
    std::vector<std::shared_ptr<ContinuousTaskCallbackInfo>> tasks;
    std::vector<std::shared_ptr<ResourceCallbackInfo>> resources;
    std::vector<std::shared_ptr<ResourceCallbackInfo>> processes;
    EXPECT_EQ(manager->GetAllRunningProcesses(running), 0);
    EXPECT_EQ(manager->GetAllRenderProcesses(rendering), 0);
    EXPECT_EQ(manager->GetForegroundApplications(foreground), 0);
    EXPECT_EQ(WindowManager::GetInstance().GetVisibilityWindowInfo(windows), 0);
    EXPECT_EQ(BackgroundTaskMgrHelper::GetContinuousTaskApps(tasks), 0);
    EXPECT_EQ(BackgroundTaskMgrHelper::GetEfficiencyResourcesInfos(resources, processes), 0);
    EXPECT_THAT(running, ElementsAre(FieldsAre(10, 1), FieldsAre(11, 1), FieldsAre(20, 2), FieldsAre(30, 3)));
    EXPECT_THAT(rendering, ElementsAre(FieldsAre(12, 1)));
    EXPECT_THAT(foreground, ElementsAre(FieldsAre(1)));
    EXPECT_THAT(windows, ElementsAre(Property(&sptr<WindowVisibilityInfo>::GetRefPtr,
                                              Field(&WindowVisibilityInfo::uid, 2))));
    const std::vector<uint32_t> taskTypes{1, 4294967295};
    EXPECT_THAT(tasks,
                ElementsAre(Pointee(AllOf(Property(&ContinuousTaskCallbackInfo::GetCreatorUid, 1),
                                          Property(&ContinuousTaskCallbackInfo::GetCreatorPid, 10),
                                          Property(&ContinuousTaskCallbackInfo::GetTypeIds, taskTypes)))));
    const auto resource = [](int32_t uid, int32_t pid, uint32_t number) {
        return Pointee(AllOf(Property(&ResourceCallbackInfo::GetUid, uid),
                             Property(&ResourceCallbackInfo::GetPid, pid),
                             Property(&ResourceCallbackInfo::GetResourceNumber, number)));
    };
    EXPECT_THAT(resources, ElementsAre(resource(1, 10, 64)));
    EXPECT_THAT(processes, ElementsAre(resource(2, 20, 1)));
    const std::tuple<int, int, int> types[] = {{1, 11, 1}, {1, 12, 1}, {2, 11, 0}, {3, 30, 2}, {1, 30, 0}};
    for (const auto& [uid, pid, type] : types) {
        EXPECT_EQ(GeneralTypeOf(uid, pid), type) << uid << ':' << pid;
    }
}

TEST_F(DeviceTest, EveryChangeIsSeenAtOnceAlsoOneOfTheSameSizeAndTime) {
    for (int uid = 1; uid < 10; ++uid) {
        Put(R"({"extensions": [{"uid": )" + std::to_string(uid) + R"(, "pid": 5}]})");
        EXPECT_EQ(GeneralTypeOf(uid, 5), 2);
    }
    std::filesystem::remove(file_);
    EXPECT_EQ(GeneralTypeOf(9, 5), 0);
}

TEST_F(DeviceTest, TheLastGoodStateStaysWhileTheFileIsBadWhichIsToldOnce) {
    testing::internal::CaptureStderr();
    EXPECT_TRUE(PowerMgrClient::GetInstance().IsScreenOn()) << "without a file";
    EXPECT_EQ(GeneralTypeOf(1, 10), 0);
    for (const char* content : {kState, "{", "{", "", R"({"screen_on": 1})", kState, "{"}) {
        Put(content);
        for (int i = 0; i < 3; ++i) {
            EXPECT_FALSE(PowerMgrClient::GetInstance().IsScreenOn()) << content;
            EXPECT_EQ(GeneralTypeOf(1, 10), 1) << content;
        }
    }
    StopLog();
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::MatchesRegex("([^\n]* E KITE_PLATFORM: [^\n]*\n){4}"));
    std::filesystem::remove(file_);
    ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
    EXPECT_FALSE(PowerMgrClient::GetInstance().IsScreenOn());
    std::filesystem::remove(file_);
    EXPECT_TRUE(PowerMgrClient::GetInstance().IsScreenOn());
}

TEST(DeviceStateReaderTest, AFaultIsNamedWithItsPlace) {
    const std::pair<const char*, const char*> cases[] = {
        {"{\"screen_on\":\n tru}", "line 2, column"},
        {"[]", "the document: must be an object"},
        {R"({"screen": true})", "screen: unknown key"},
        {R"({"screen_on": "yes"})", "screen_on: must be true or false"},
        {R"({"applications": [{"uid": 1, "foreground": null}]})",
         "applications[0].foreground: must be true or false"},
        {R"({"applications": {}})", "applications: must be an array"},
        {R"({"applications": [{"uid": 1}, 2]})", "applications[1]: must be an object"},
        {R"({"applications": [{}]})", "applications[0].uid: missing"},
        {R"({"applications": [{"uid": -1}]})", "applications[0].uid: must lie between 0 and 2147483647"},
        {R"({"applications": [{"uid": 1, "processes": [1, 0]}]})",
         "applications[0].processes[1]: must lie between 1 and 2147483647"},
        {R"({"extensions": [{"uid": 1}]})", "extensions[0].pid: missing"},
        {R"({"continuous_tasks": [{"uid": 1, "pid": 2, "types": [4294967296]}]})",
         "continuous_tasks[0].types[0]: must lie between 0 and 4294967295"},
        {R"({"efficiency_resources": {"processes": [{"uid": 1, "pid": 1.5}]}})",
         "efficiency_resources.processes[0].pid: must be an integer"},
        {R"({"efficiency_resources": {"other": []}})", "efficiency_resources.other: unknown key"},
    };
    for (const auto& [text, fault] : cases) {
        const Result<DeviceState> state = ReadDeviceState(text);
        ASSERT_FALSE(state) << text;
        EXPECT_THAT(state.Why().Text(), testing::HasSubstr(fault));
    }
    EXPECT_FALSE(ReadDeviceState(std::string(1000000, '[')));
}

}  // namespace
}  // namespace KITE::Linux
