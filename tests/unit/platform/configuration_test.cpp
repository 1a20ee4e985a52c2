#include "config_policy.h"
#include "parameters.h"
#include "platform_fixture.h"

namespace KITE::Linux {

using ConfigurationTest = DirectoryTest;

TEST_F(ConfigurationTest, ParametersAreTextsNumbersOrBooleans) {
    EXPECT_TRUE(GetBoolParameter("a", true));
    Put("parameters.json", R"({"on": "on", "off": "off", "false": false, "one": 1, "odd": "maybe", "list": [],
                               "number": -5, "text": "77", "long": 2147483648, "part": "12abc", "half": 1.5})");
    EXPECT_TRUE(GetBoolParameter("on", false));
    EXPECT_FALSE(GetBoolParameter("off", true));
    EXPECT_FALSE(GetBoolParameter("false", true));
    EXPECT_TRUE(GetBoolParameter("one", false));
    for (const char* key : {"odd", "list", "missing", "number"}) {
        EXPECT_TRUE(GetBoolParameter(key, true)) << key;
        EXPECT_FALSE(GetBoolParameter(key, false)) << key;
    }
    EXPECT_EQ(GetIntParameter("number", 3), -5);
    EXPECT_EQ(GetIntParameter("text", 3), 77);
    EXPECT_EQ(GetIntParameter("text", 3, 77, 77), 77);
    EXPECT_EQ(GetIntParameter("text", 3, 78), 3);
    EXPECT_EQ(GetIntParameter("text", 3, 0, 76), 3);
    for (const char* key : {"long", "part", "half", "on", "list", "missing"}) {
        EXPECT_EQ(GetIntParameter(key, 3), 3) << key;
    }
    Put("parameters.json", "{\"one\": 1");
    EXPECT_FALSE(GetBoolParameter("one", false));
}

TEST_F(ConfigurationTest, ConfigurationDirectoriesLeaveOutWhatOthersMayWrite) {
    EXPECT_EQ(GetCfgDirList(), nullptr);
    nlohmann::json names = nlohmann::json::array({Path("missing"), Path("open")});
    std::filesystem::create_directory(Path("open"));
    chmod(Path("open").c_str(), 0775);
    std::vector<std::string> expected;
    for (int i = 0; i < 34; ++i) {
        const std::string name = Path("d" + std::to_string(i));
        std::filesystem::create_directory(name);
        chmod(name.c_str(), 0755);
        names.push_back(name);
        expected.push_back(name);
    }
    Put("config_directories.json", nlohmann::json{{"directories", names}}.dump());
    CfgDir* list = GetCfgDirList();
    ASSERT_NE(list, nullptr);
    const std::vector<std::string> found(std::begin(list->paths), std::end(list->paths));
    FreeCfgDirList(list);
    expected.resize(MAX_CFG_POLICY_DIRS_CNT);
    EXPECT_EQ(found, expected);
    for (const char* broken : {"{", "[]", R"({"directories": ["/", 1]})", R"({"directories": ["etc"]})"}) {
        Put("config_directories.json", broken);
        EXPECT_EQ(GetCfgDirList(), nullptr) << broken;
    }
    FreeCfgDirList(nullptr);
}

}  // namespace KITE::Linux
