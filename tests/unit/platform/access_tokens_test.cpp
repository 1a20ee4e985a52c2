#include "runtime/access_tokens.h"
#include "access_token.h"
#include "platform_fixture.h"

namespace KITE::Linux {
namespace {

class AccessTokenTest : public DirectoryTest {
  protected:
    bool Load(const std::string& text) {
        Put("tokens.json", text);
        chmod(Path("tokens.json").c_str(), 0644);
        return Load();
    }
    bool Load() {
        const Result<void> loaded = LoadAccessTokens();
        error_ = loaded ? "" : loaded.Why().Text();
        return static_cast<bool>(loaded);
    }

    std::string error_;
};

TEST_F(AccessTokenTest, AUidHasTheNameAndThePermissionsOfItsEntryAndNoOther) {
    ASSERT_TRUE(Load(R"({"tokens": [{"uid": 7, "process_name": "faultd"},
                                    {"user": "root", "process_name": "svcdb", "permissions": ["P"]}]})"))
        << error_;
    EXPECT_EQ(TokenOfUid(8), 0U);
    NativeTokenInfo info;
    ASSERT_EQ(AccessTokenKit::GetNativeTokenInfo(TokenOfUid(7), info), 0);
    EXPECT_EQ(info.processName, "faultd");
    ASSERT_EQ(AccessTokenKit::GetNativeTokenInfo(TokenOfUid(0), info), 0);
    EXPECT_EQ(info.processName, "svcdb");
    EXPECT_EQ(AccessTokenKit::VerifyAccessToken(TokenOfUid(0), "P"), PERMISSION_GRANTED);
    EXPECT_EQ(AccessTokenKit::VerifyAccessToken(TokenOfUid(0), "Q"), PERMISSION_DENIED);
    EXPECT_EQ(AccessTokenKit::VerifyAccessToken(TokenOfUid(7), "P"), PERMISSION_DENIED);
    for (const uint32_t nobody : {0U, 3U, 0xFFFFFFFFU}) {
        EXPECT_NE(AccessTokenKit::GetNativeTokenInfo(nobody, info), 0);
        EXPECT_EQ(AccessTokenKit::VerifyAccessToken(nobody, "P"), PERMISSION_DENIED);
    }
    EXPECT_EQ(info.processName, "svcdb");
}

TEST_F(AccessTokenTest, AFileThatCannotBeTrustedIsRefusedWithItsPathAndPlace) {
    const std::string good = R"({"tokens": [{"uid": 7, "process_name": "faultd"}]})";
    const std::pair<const char*, const char*> cases[] = {
        {"{\"tokens\": [}", "line 1, column"},
        {R"({})", "tokens: missing"},
        {R"({"tokens": [], "more": 1})", "more: unknown key"},
        {R"({"tokens": [{"uid": 1, "process_name": "a"}, {"uid": 1, "process_name": "b"}]})",
         "tokens[1]: uid 1"},
        {R"({"tokens": [{"uid": 0, "process_name": "a"}, {"user": "root", "process_name": "b"}]})",
         "tokens[1]: uid 0"},
        {R"({"tokens": [{"user": "nobody-of-that-name", "process_name": "a"}]})", "tokens[0].user: "},
        {R"({"tokens": [{"process_name": "a"}]})", "tokens[0]: must have either"},
        {R"({"tokens": [{"uid": 4294967295, "process_name": "a"}]})", "tokens[0].uid: must lie between"},
        {R"({"tokens": [{"uid": 1}]})", "tokens[0].process_name: missing"},
        {R"({"tokens": [{"uid": 1, "process_name": ""}]})", "tokens[0].process_name: must not be empty"},
        {R"({"tokens": [{"uid": 1, "process_name": "a", "permissions": [1]}]})",
         "permissions[0]: must be a string"},
    };
    ASSERT_TRUE(Load(good)) << error_;
    for (const auto& [text, fault] : cases) {
        EXPECT_FALSE(Load(text)) << text;
        EXPECT_TRUE(error_.starts_with(Path("tokens.json"))) << error_;
        EXPECT_NE(error_.find(fault), std::string::npos) << error_;
    }
    Put("tokens.json", good);
    chmod(Path("tokens.json").c_str(), 0664);
    EXPECT_FALSE(Load());
    chmod(Path("tokens.json").c_str(), 0644);
    ASSERT_EQ(chown(Path("tokens.json").c_str(), 1, 0), 0);
    EXPECT_FALSE(Load());
    EXPECT_NE(TokenOfUid(7), 0U);
    std::filesystem::remove(Path("tokens.json"));
    EXPECT_TRUE(Load()) << error_;
    EXPECT_EQ(TokenOfUid(7), 0U);
}

}  // namespace
}  // namespace KITE::Linux
