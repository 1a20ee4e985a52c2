#include <thread>

#include "json_utils.h"
#include "res_policy_manager.h"
#include "service_fixture.h"

namespace KITE::ResourceQuotaCtl {

namespace {

using Kelvra::ResQuotaInfo;

class PolicyTest : public ServiceTest {
  protected:
    // Every exported record as "name resource id".
    std::vector<std::string> Exported() {
        std::vector<ResQuotaInfo> infos;
        policy_->GetAllResQuotaInfos(infos);
        std::vector<std::string> texts;
        for (const auto& info : infos) {
            texts.push_back(info.processName + ' ' + info.resType + ' ' + std::to_string(info.id));
        }
        return texts;
    }
    // Loads the files as the only layers, one after the other, into a new policy.
    bool Load(const std::vector<std::string>& files) {
        platform.configDirectories.clear();
        policy_.emplace();
        for (const auto& file : files) {
            AddLayer(Quotas(file));
        }
        return policy_->Init();
    }

    std::optional<ResPolicyManager> policy_{std::in_place};
};

TEST_F(PolicyTest, ExportsRecordsByNameThenResourceWithEveryField) {
    ASSERT_TRUE(Load(
        {Entry("B", "",
               "'running_time':30,'io':[{'condition':[],'id':3,'resource_quota':1,'duration':2,"
               "'action':'warning'},{'condition':[],'id':4,'resource_quota':1,'duration':2,'action':''}]") +
         ',' +
         Entry(
             "A", "",
             Rule("cpu_ext", 2) +
                 ",'cpuX':[],'mem':[{'condition':[],'id':1,'resource_quota':9,'duration':2,'action':'kill'}],"
                 "'cpu':[{'condition':['foreground&audio','screen_off','background&','&&','Audio',"
                 "'background&&audio',' audio','','audio&audio'],'id':4294967297,'resource_quota':5000000000,"
                 "'duration':18446744073709551615,'action':'freeze','else':1}]")}));
    EXPECT_TRUE(policy_->IsConfigInit());
    EXPECT_THAT(Exported(), ElementsAre("A cpu 1", "A cpu_ext 2", "A mem 1", "B io 3", "B io 4"));
    std::vector<ResQuotaInfo> infos(1);
    policy_->GetAllResQuotaInfos(infos);
    ASSERT_EQ(infos.size(), 6U) << "records are appended";
    EXPECT_EQ(infos[1].resource, 5000000000);
    EXPECT_EQ(infos[1].duration, -1);
    EXPECT_EQ(infos[1].processType, 0);
    EXPECT_EQ(infos[1].action, "freeze");
    EXPECT_THAT(infos[1].conditions, ElementsAre(5, 8, 2, 0, 0, 6, 0, 0, 4));
}

TEST_F(PolicyTest, ExportsOnlyRunningTimesFromOneUpwards) {
    ASSERT_TRUE(Load(
        {Entry("ext_b", "", "'running_time':1") + ',' + Entry("ext_a", "", "'running_time':30") + ',' +
         Entry("zero", "", "'running_time':0") + ',' + Entry("minus", "", "'running_time':-1") + ',' +
         Entry("float", "", "'running_time':3.0") + ',' + Entry("cut", "", "'running_time':4294967301")}));
    EXPECT_THAT(policy_->GetExtensionRunningTime(),
                ElementsAre(std::pair("cut", 5), std::pair("ext_a", 30), std::pair("ext_b", 1)));
    EXPECT_THAT(Exported(), IsEmpty());
    EXPECT_TRUE(Load({Entry("A", "", "'cpu':{},'mem':[],'memory':[1],'CPU':1") +
                      ",{'process_name':'','inherit':'','process_quotas':{},'more':[]}"}));
    EXPECT_THAT(Exported(), IsEmpty()) << "what is not required is tolerated";
}

TEST_F(PolicyTest, InitLogsItsStepsAndLoadsOnlyOnce) {
    const std::string file = AddLayer(Quotas(Entry("A", "", Rule("mem", 1))));
    platform.configDirectories.insert(platform.configDirectories.begin(), std::nullopt);
    platform.configDirectories.push_back("/nowhere");
    const std::string layer = *platform.configDirectories[1];
    ASSERT_TRUE(policy_->Init());
    EXPECT_THAT(platform.Trace(),
                ElementsAre("I Init", "GetCfgDirList()", "D cfgDir: " + layer + " ", "D cfgDir: /nowhere ",
                            "FreeCfgDirList()", "D Get valid base config file: " + file,
                            "I realPath is [" + file + "]"));
    platform.ClearTrace();
    AddLayer("broken");
    EXPECT_TRUE(policy_->Init());
    EXPECT_THAT(platform.Trace(), ElementsAre("I Init"));
}

TEST_F(PolicyTest, WithoutFilesThereIsNoPolicyUntilOneComes) {
    EXPECT_FALSE(policy_->Init());
    EXPECT_THAT(platform.Log(), ElementsAre("I Init", "E There are no valid config files"));
    EXPECT_FALSE(policy_->IsConfigInit());
    AddLayer(Quotas(Entry("A", "", Rule("mem", 1))));
    EXPECT_TRUE(policy_->Init());
    EXPECT_THAT(Exported(), ElementsAre("A mem 1"));
}

// What is refused, and the error lines without their unit.
using Refusals = std::vector<std::pair<std::string, std::vector<std::string>>>;

class RefusalTest : public PolicyTest {
  protected:
    // A file whose only fault is this rule.
    static std::string WithRule(const std::string& rule) {
        return Quotas(Entry("B", "", "") + ',' +
                      Entry("A", "",
                            Rule("cpu", 1) +
                                ",'cpu_ext':[{'condition':[],'id':1,'resource_quota':1,'duration':1,"
                                "'action':''}," +
                                rule + ']'));
    }
    // Each text, as the second of three layers, stops everything.
    void ExpectRefused(const Refusals& refusals, bool isFileRefused) {
        for (const auto& [text, expected] : refusals) {
            SCOPED_TRACE(text.substr(0, 200));
            platform.configDirectories.clear();
            AddLayer(Quotas(Entry("good", "", "'running_time':1," + Rule("cpu", 1))));
            const std::string file = AddLayer(text);
            const std::string last = AddLayer(Quotas(""));
            platform.ClearTrace();
            EXPECT_FALSE(policy_->Init());
            std::vector<std::string> errors;
            for (const std::string& line : platform.Log()) {
                if (line.starts_with("E ")) {
                    errors.push_back(line.substr(2));
                }
            }
            auto whole = expected;
            if (isFileRefused) {
                whole.push_back("config file " + file + " is refused");
                EXPECT_THAT(platform.Log(), Not(Contains("I realPath is [" + last + ']')));
            }
            EXPECT_EQ(errors, whole);
            EXPECT_FALSE(policy_->IsConfigInit());
            EXPECT_THAT(Exported(), IsEmpty());
            EXPECT_THAT(policy_->GetExtensionRunningTime(), IsEmpty());
        }
    }
};

TEST_F(RefusalTest, OfWhatIsNoJsonOrTooDeep) {
    const std::string deep = std::string(513, '[') + std::string(513, ']');
    const auto broken = [](const std::string& text) {
        return std::vector<std::string>{text + " transit to json failed"};
    };
    const std::vector<std::string> noArray{"Get quotas arrays failed!"};
    ExpectRefused({{"", broken("")},
                   {"{", broken("{")},
                   {"{}//", broken("{}//")},
                   {deep, broken(deep)},
                   {deep.substr(1, 1024), noArray},
                   {std::string(511, '[') + R"({"a":1})" + std::string(511, ']'), noArray},
                   {"[]", noArray},
                   {Json("{'quotas':{}}"), noArray}},
                  true);
}

TEST_F(RefusalTest, OfAWrongEntryOrRule) {
    const std::pair<const char*, std::string> entries[] = {
        {"1", "process_name"},
        {"{'inherit':'','process_quotas':{}}", "process_name"},
        {"{'process_name':1,'inherit':'','process_quotas':{}}", "process_name"},
        {"{'process_name':'A','process_quotas':{}}", "inherit"},
        {"{'process_name':'A','inherit':null,'process_quotas':{}}", "inherit"},
        {"{'process_name':'A','inherit':''}", "process_quotas"},
        {"{'process_name':'A','inherit':'','process_quotas':[]}", "process_quotas"}};
    const std::pair<const char*, std::string> rules[] = {
        {"1", "condition"},
        {"{'id':1,'resource_quota':1,'duration':1,'action':''}", "condition"},
        {"{'condition':[1],'id':1,'resource_quota':1,'duration':1,'action':''}", "condition"},
        {"{'condition':'audio','id':1,'resource_quota':1,'duration':1,'action':''}", "condition"},
        {"{'condition':[],'id':1.0,'resource_quota':1,'duration':1,'action':''}", "id"},
        {"{'condition':[],'id':1,'resource_quota':true,'duration':1,'action':''}", "resource_quota"},
        {"{'condition':[],'id':1,'resource_quota':1,'duration':'1','action':''}", "duration"},
        {"{'condition':[],'id':1,'resource_quota':1,'duration':1,'action':1}", "action"},
        {"{'condition':[],'id':1,'resource_quota':1,'duration':1}", "action"}};
    Refusals refusals;
    for (const auto& [entry, key] : entries) {
        refusals.push_back(
            {Quotas(entry),
             {"ParseProcessQuotaConfig failed!", "/quotas/0: " + key + " is missing or wrong"}});
    }
    for (const auto& [rule, key] : rules) {
        refusals.push_back(
            {WithRule(rule),
             {"ParseQuotaForResource failed!", key + " of a rule is missing or wrong",
              "ParseProcessQuotas failed!", "/process_quotas/cpu_ext/1 is wrong",
              "ParseProcessQuotaConfig failed!", "/quotas/1: process_quotas is missing or wrong"}});
    }
    ExpectRefused(refusals, true);
}

TEST_F(RefusalTest, OfCyclesAndMissingTemplates) {
    const auto with = [](const std::string& line) {
        return std::vector<std::string>{line, "Merge quota config failed!"};
    };
    const std::string rule = "'running_time':1," + Rule("cpu", 1);
    ExpectRefused(
        {{Quotas(Entry("A", "A", rule)), with("Find circular inheritance: A, A")},
         {Quotas(Entry("A", "B", rule) + ',' + Entry("B", "C", rule) + ',' + Entry("C", "B", rule)),
          with("Find circular inheritance: C, B")},
         {Quotas(Entry("A", "missing", rule)), with("MergeConfig not find template name: missing")}},
        false);
}

TEST_F(PolicyTest, ReadsLargeFilesAndLetsBracketsStandInNames) {
    const std::string name = R"(\\\" )" + std::string(100'000, '[');
    AddLayer("{\"other\":[{}]," + Quotas(Entry(name, "", Rule("cpu", 1))).substr(1));
    for (int i = 0; i < 30; ++i) {
        platform.configDirectories.push_back(std::nullopt);
    }
    const std::string behindTheEnd = '\0' + std::string(513, '[');  // of the text, which a NUL ends
    AddLayer(Quotas(Entry("in_the_last_slot", "", Rule("cpu", 2))) + behindTheEnd);
    ASSERT_TRUE(policy_->Init());
    EXPECT_EQ(Exported().size(), 2U);
}

TEST_F(PolicyTest, ReadersWaitForTheWholePolicyOrSeeNone) {
    AddLayer(Quotas(Entry("A", "", "'running_time':1," + Rule("cpu", 1)) + ',' + Entry("B", "A", "")));
    const std::jthread initialiser([this] { policy_->Init(); });
    const std::jthread reader([this] {
        for (bool isInit = false; !isInit;) {
            isInit = policy_->IsConfigInit();
            EXPECT_TRUE(policy_->GetExtensionRunningTime().size() == 2 || !isInit);
            EXPECT_TRUE(Exported().size() == 2 || !isInit);
        }
    });
}

TEST_F(PolicyTest, InheritsWholeListsByKeyThroughAChain) {
    ASSERT_TRUE(Load(
        {Entry("A", "B", "'running_time':-5,'io':7") + ',' + Entry("B", "Z", "'cpu':[]") + ',' +
         Entry("Z", "", "'running_time':9," + Rule("cpu", 1) + ',' + Rule("io", 2) + ',' + Rule("mem", 3)) +
         ',' + Entry("C", "Z", "'running_time':5," + Rule("cpu", 4))}));
    EXPECT_THAT(Exported(), ElementsAre("A mem 3", "B io 2", "B mem 3", "C cpu 4", "C io 2", "C mem 3",
                                        "Z cpu 1", "Z io 2", "Z mem 3"));
    EXPECT_THAT(policy_->GetExtensionRunningTime(),
                ElementsAre(std::pair("B", 9), std::pair("C", 5), std::pair("Z", 9)));
}

TEST_F(PolicyTest, ALaterFileReplacesRecordsAndSometimesParents) {
    const auto x = [](const std::string& parent, int id) { return Entry("X", parent, Rule("cpu", id)); };
    const std::string other = Entry("other", "", "");
    const std::string before = Entry("T", "", Rule("mem", 1)) + ',' + Entry("U", "", Rule("mem", 2)) + ',';
    const struct {
        const char* name;
        std::vector<std::string> files;
        std::vector<std::string> rules;  // of X
    } cases[] = {
        {"one that a single file defines keeps its parent",
         {before + x("T", 7), other, other},
         {"X cpu 7", "X mem 1"}},
        {"that of the file before stays", {before + x("T", 7), x("U", 8)}, {"X cpu 8", "X mem 1"}},
        {"also against none", {before + x("T", 7), x("", 8)}, {"X cpu 8", "X mem 1"}},
        {"where there was none, the later one's", {before + x("", 7), x("U", 8)}, {"X cpu 8", "X mem 2"}},
        {"the whole record is replaced", {Entry("X", "", Rule("io", 7)), x("", 8)}, {"X cpu 8"}},
        {"two files later it decides", {before + x("T", 7), other, x("", 8)}, {"X cpu 8"}},
        {"one file's later element", {before + x("T", 7) + ',' + x("U", 8)}, {"X cpu 8", "X mem 1"}},
        {"a third one takes its own", {before + x("T", 7), x("", 8), x("U", 9)}, {"X cpu 9", "X mem 2"}}};
    for (const auto& [name, files, expected] : cases) {
        EXPECT_TRUE(Load(files));
        auto rules = Exported();
        std::erase_if(rules, [](const std::string& rule) { return !rule.starts_with("X "); });
        EXPECT_EQ(rules, expected) << name;
    }
}

// The base directory of the system, with one layer in it, seen by this process alone.
class SystemLayerTest : public PolicyTest {
  protected:
    void SetUp() override {
        std::filesystem::create_directory("/system");
        if (!UnshareMounts() || mount("none", "/system", "tmpfs", 0, nullptr) != 0) {
            GTEST_SKIP() << "needs the right to mount";
        }
        std::filesystem::create_directories("/system/etc/efficiency_manager");
        std::ofstream("/system/etc/efficiency_manager/process_resource_limit.json")
            << Quotas(Entry("A", "", Rule("cpu", 1)));
    }
    void TearDown() override {
        umount("/system");
        std::error_code ignored;
        std::filesystem::remove("/system", ignored);
    }
    // What comes of the directories, and how many files were read.
    std::pair<std::vector<std::string>, int64_t> LoadInOrder(
        std::vector<std::optional<std::string>> directories) {
        policy_.emplace();
        platform.configDirectories = std::move(directories);
        platform.ClearTrace();
        EXPECT_TRUE(policy_->Init());
        const auto isRead = [](const auto& line) { return line.find("realPath") != line.npos; };
        return {Exported(), std::ranges::count_if(platform.Log(), isRead)};
    }
};

TEST_F(SystemLayerTest, IsAlwaysReadAndFirstUnlessListedElsewhere) {
    AddLayer(Quotas(Entry("A", "", Rule("cpu", 2))));
    const auto layer = platform.configDirectories.front();
    const auto loaded = [](const std::string& rule, int64_t files) {
        return std::pair(std::vector{rule}, files);
    };
    EXPECT_EQ(LoadInOrder({layer}), loaded("A cpu 2", 2));
    EXPECT_EQ(LoadInOrder({layer, std::nullopt, "/system"}), loaded("A cpu 1", 2)) << "the later layer wins";
    EXPECT_EQ(LoadInOrder({layer, "/system/"}), loaded("A cpu 1", 3));
}

TEST_F(PolicyTest, ResolvesLinksAndRefusesLongAndMissingPaths) {
    const std::string file = AddLayer("{}");
    const std::string link = file + ".link";
    std::filesystem::create_symlink(file, link);
    std::string real;
    EXPECT_TRUE(JsonUtil::GetRealPath(link, real));
    EXPECT_EQ(real, file);
    // Leading slashes make a path longer and name the same file.
    const std::string longest = std::string(4096 - file.size(), '/') + file;
    EXPECT_TRUE(JsonUtil::GetRealPath(longest, real));
    EXPECT_FALSE(JsonUtil::GetRealPath('/' + longest, real));
    nlohmann::json json;
    platform.ClearTrace();
    EXPECT_FALSE(JsonUtil::LoadJsonObjFromFile(json, file + "missing"));
    EXPECT_THAT(platform.Log(), ElementsAre("E Cannot read json file [" + file + "missing]"));
    EXPECT_FALSE(JsonUtil::LoadJsonObjFromFile(json, AddLayer("[")));
    EXPECT_TRUE(json.is_discarded());
    platform.ClearTrace();
    EXPECT_TRUE(JsonUtil::LoadJsonObjFromFile(json, link));
    EXPECT_THAT(platform.Log(), ElementsAre("I realPath is [" + link + "]"));
}

}  // namespace

}  // namespace KITE::ResourceQuotaCtl
