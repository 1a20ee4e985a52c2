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
        texts.reserve(infos.size());
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

TEST_F(PolicyTest, InitLogsItsStepsAndLoadsOnlyOnceThereAreFiles) {
    EXPECT_FALSE(policy_->Init());
    EXPECT_THAT(platform.Log(), ElementsAre("I Init", "E There are no valid config files"));
    EXPECT_FALSE(policy_->IsConfigInit());
    const std::string file = AddLayer(Quotas(Entry("A", "", Rule("mem", 1))));
    const std::string layer = *platform.configDirectories.front();
    platform.configDirectories = {std::nullopt, layer, "/nowhere"};
    EXPECT_THAT(TraceOf([&] { EXPECT_TRUE(policy_->Init()); }),
                ElementsAre("I Init", "GetCfgDirList()", "D cfgDir: " + layer + " ", "D cfgDir: /nowhere ",
                            "FreeCfgDirList()", "D Get valid base config file: " + file,
                            "I realPath is [" + file + "]"));
    EXPECT_THAT(Exported(), ElementsAre("A mem 1"));
    AddLayer("broken");
    EXPECT_THAT(TraceOf([&] { EXPECT_TRUE(policy_->Init()); }), ElementsAre("I Init"));
}

class RefusalTest : public PolicyTest {
  protected:
    // The text, as the second of three layers, stops everything, with these error lines.
    void ExpectRefused(const std::string& text, std::vector<std::string> expected,
                       bool isFileRefused = true) {
        SCOPED_TRACE(text.substr(0, 200));
        platform.configDirectories.clear();
        AddLayer(Quotas(Entry("good", "", "'running_time':1," + Rule("cpu", 1))));
        const std::string file = AddLayer(text);
        const std::string last = AddLayer(Quotas(""));
        platform.ClearTrace();
        EXPECT_FALSE(policy_->Init());
        auto errors = platform.Log();
        EXPECT_EQ(std::ranges::count(errors, "I realPath is [" + last + ']'), isFileRefused ? 0 : 1);
        std::erase_if(errors, [](const auto& line) { return !line.starts_with("E "); });
        if (isFileRefused) {
            expected.push_back("config file " + file + " is refused");
        }
        std::ranges::for_each(expected, [](std::string& line) { line.insert(0, "E "); });
        EXPECT_EQ(errors, expected);
        EXPECT_FALSE(policy_->IsConfigInit());
        EXPECT_THAT(Exported(), IsEmpty());
        EXPECT_THAT(policy_->GetExtensionRunningTime(), IsEmpty());
    }

    // Calls check(text, key) for what is no object, and for objects of these members of which one is missing
    // or of a wrong type.
    template <typename Check>
    static void ForEachFault(const std::vector<std::pair<std::string, std::string>>& members, Check check) {
        check("1", members.front().first);
        for (const auto& [key, right] : members) {
            for (const std::string wrong : {"", "null", "true", "1.0", "[1]", right == "''" ? "1" : "'1'"}) {
                std::string text;
                for (const auto& [name, value] : members) {
                    const std::string& given = name == key ? wrong : value;
                    text += given.empty() ? "" : (text.empty() ? "'" : ",'") + name + "':" + given;
                }
                check('{' + text + '}', key);
            }
        }
    }
};

TEST_F(RefusalTest, OfWhatIsNoJsonOrTooDeep) {
    const std::string deep = std::string(513, '[') + std::string(513, ']');
    for (const std::string& text : {std::string(), std::string("{"), std::string("{}//"), deep}) {
        ExpectRefused(text, {text + " transit to json failed"});
    }
    for (const std::string& text :
         {deep.substr(1, 1024), std::string(511, '[') + "{}" + std::string(511, ']'), std::string("[]"),
          Json("{'quotas':{}}")}) {
        ExpectRefused(text, {"Get quotas arrays failed!"});
    }
}

TEST_F(RefusalTest, OfAWrongEntryOrRule) {
    ForEachFault({{"process_name", "''"}, {"inherit", "''"}, {"process_quotas", "{}"}},
                 [&](const std::string& entry, const std::string& key) {
                     ExpectRefused(Quotas(entry), {"ParseProcessQuotaConfig failed!",
                                                   "/quotas/0: " + key + " is missing or wrong"});
                 });
    const std::string before = Entry("B", "", "") + ",{'process_name':'A','inherit':'','process_quotas':{" +
                               Rule("cpu", 1) + ',' + Rule("cpu_ext", 1);
    ForEachFault(
        {{"condition", "[]"}, {"id", "1"}, {"resource_quota", "1"}, {"duration", "1"}, {"action", "''"}},
        [&](const std::string& rule, const std::string& key) {
            ExpectRefused(
                Quotas(before.substr(0, before.size() - 1) + ',' + rule + "]}}"),
                {"ParseQuotaForResource failed!", key + " of a rule is missing or wrong",
                 "ParseProcessQuotas failed!", "/process_quotas/cpu_ext/1 is wrong",
                 "ParseProcessQuotaConfig failed!", "/quotas/1: process_quotas is missing or wrong"});
        });
}

TEST_F(RefusalTest, OfCyclesAndMissingTemplates) {
    const std::string rule = "'running_time':1," + Rule("cpu", 1);
    const std::pair<std::string, const char*> cases[] = {
        {Entry("A", "A", rule), "Find circular inheritance: A, A"},
        {Entry("A", "B", rule) + ',' + Entry("B", "C", rule) + ',' + Entry("C", "B", rule),
         "Find circular inheritance: C, B"},
        {Entry("A", "missing", rule), "MergeConfig not find template name: missing"}};
    for (const auto& [entries, line] : cases) {
        ExpectRefused(Quotas(entries), {line, "Merge quota config failed!"}, false);
    }
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

class SystemLayerTest : public PolicyTest {
  protected:
    ~SystemLayerTest() override {
        umount(system_.c_str());
        std::filesystem::remove(system_, ignored_);
    }

    const std::filesystem::path system_ = "/system";
    std::error_code ignored_;
};

TEST_F(SystemLayerTest, IsAlwaysReadAndFirstUnlessListedElsewhere) {
    AddLayer(Quotas(Entry("A", "", Rule("cpu", 1))));
    AddLayer(Quotas(Entry("A", "", Rule("cpu", 2))));
    const auto layer = platform.configDirectories.back();
    std::filesystem::create_directory(system_, ignored_);
    if (!UnshareMounts() ||
        mount(platform.configDirectories.front()->c_str(), system_.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "needs the right to mount";
    }
    const struct {
        std::vector<std::optional<std::string>> directories;
        const char* rule;
        int64_t files;  // that are read
    } cases[] = {{{layer}, "A cpu 2", 2},
                 {{layer, std::nullopt, "/system"}, "A cpu 1", 2},  // the later layer wins
                 {{layer, "/system/"}, "A cpu 1", 3}};
    for (const auto& [directories, rule, files] : cases) {
        policy_.emplace();
        platform.configDirectories = directories;
        const auto trace = TraceOf([&] { EXPECT_TRUE(policy_->Init()); });
        EXPECT_THAT(Exported(), ElementsAre(rule));
        const auto isRead = [](const auto& line) { return line.starts_with("I realPath is"); };
        EXPECT_EQ(std::ranges::count_if(trace, isRead), files);
    }
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
