#include "runtime/access_tokens.h"
#include "access_token.h"
#include "platform_fixture.h"

namespace KITE::Linux {

class AccessTokenTest : public DirectoryTest {
  protected:
    // Why the file is refused; empty when it is taken.
    static std::string Load() {
        const Result<void> loaded = LoadAccessTokens();
        return loaded ? "" : loaded.Why().Text();
    }
    std::string Load(const std::string& text) const {
        Put("tokens.json", text);
        chmod(file_.c_str(), 0644);
        return Load();
    }

    const std::string file_ = Path("tokens.json");
};

TEST_F(AccessTokenTest, AUidHasTheNameAndThePermissionsOfItsEntryAndNoOther) {
    ASSERT_EQ(Load(R"({"tokens": [{"uid": 7, "process_name": "faultd"},
                                  {"user": "root", "process_name": "svcdb", "permissions": ["P"]}]})"),
              "");
    EXPECT_EQ(TokenOfUid(8), 0U);
    NativeTokenInfo info;
    ASSERT_EQ(AccessTokenKit::GetNativeTokenInfo(TokenOfUid(7), info), 0);
    EXPECT_EQ(info.processName, "faultd");
    ASSERT_EQ(AccessTokenKit::GetNativeTokenInfo(TokenOfUid(0), info), 0);
    EXPECT_EQ(info.processName, "svcdb");
    EXPECT_EQ(AccessTokenKit::VerifyAccessToken(TokenOfUid(0), "P"), PERMISSION_GRANTED);
    EXPECT_EQ(AccessTokenKit::VerifyAccessToken(TokenOfUid(0), "Q"), PERMISSION_DENIED);
    EXPECT_EQ(AccessTokenKit::VerifyAccessToken(TokenOfUid(7), "P"), PERMISSION_DENIED);
    for (const uint32_t unknown : {0U, 3U, 0xFFFFFFFFU}) {
        EXPECT_NE(AccessTokenKit::GetNativeTokenInfo(unknown, info), 0);
        EXPECT_EQ(AccessTokenKit::VerifyAccessToken(unknown, "P"), PERMISSION_DENIED);
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
    ASSERT_EQ(Load(good), "");
    for (const auto& [text, fault] : cases) {
        EXPECT_THAT(Load(text), testing::AllOf(testing::StartsWith(file_), testing::HasSubstr(fault)));
    }
    Put("tokens.json", good);
    chmod(file_.c_str(), 0664);
    EXPECT_NE(Load(), "");
    chmod(file_.c_str(), 0644);
    ASSERT_EQ(chown(file_.c_str(), 1, 0), 0);
    EXPECT_NE(Load(), "");
    EXPECT_NE(TokenOfUid(7), 0U);
    std::filesystem::remove(file_);
    EXPECT_EQ(Load(), "");
    EXPECT_EQ(TokenOfUid(7), 0U);
}

}  // namespace KITE::Linux
