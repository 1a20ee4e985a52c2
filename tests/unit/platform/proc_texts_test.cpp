#include <gmock/gmock.h>

#include "base/text.h"
#include "proc/process_file.h"
#include "proc/process_stat.h"
#include "proc/program.h"

// Texts of /proc, parts of which processes choose.
namespace KITE::Linux {

using namespace std::string_view_literals;
using ::testing::Optional;

TEST(ProcTexts, TheNameIsOfTheFirstArgumentAndTheServiceSeesWhatFollowsTheLastSlashOfAll) {
    const struct {
        std::string_view commandLine, name, seenName;
    } cases[] = {{"/usr/bin/a_name_beyond_15_bytes\0-c\0/etc/conf\0"sv, "a_name_beyond_15_bytes", "conf"},
                 {"/bin/sixteen_bytes_xy\0--flag\0"sv, "sixteen_bytes_xy", "sixteen_bytes_x"},
                 {"/bin/foo\0/tmp/\0"sv, "foo", ""},
                 {"/ends/with/\0x\0"sv, "", ""},
                 {"no_slash\0-a\0"sv, "no_slash", "no_slash"},
                 {"", "", ""}};
    for (const auto& [commandLine, name, seenName] : cases) {
        EXPECT_EQ(ProcessNameOf(commandLine), name);
        EXPECT_EQ(SeenNameOf(commandLine), seenName);
    }
    const std::string cutOff = "/" + std::string(kCommandLineBuffer - 5, 'd') + "/foo";
    EXPECT_EQ(ProcessNameOf(cutOff), "");
    EXPECT_EQ(ProcessNameOf(cutOff.substr(1) + '\0'), "foo");
    EXPECT_TRUE(IsAcceptedAs("sixteen_bytes_x", "sixteen_bytes_xy"));
    EXPECT_FALSE(IsAcceptedAs("conf", "foo"));
    EXPECT_FALSE(IsAcceptedAs("", "foo"));
}

TEST(ProcTexts, NumbersThatAreNotWholeAreAbsent) {
    EXPECT_THAT(ResidentPagesOf("100 42 3 1 0 7 0\n"), Optional(42));
    EXPECT_EQ(ResidentPagesOf("100 42"), std::nullopt);
    EXPECT_EQ(ResidentPagesOf("100"), std::nullopt);
    EXPECT_THAT(NumberOfLine("cancelled_write_bytes: 7\nwrite_bytes: 4096\n", "write_bytes:"),
                Optional(4096));
    EXPECT_THAT(NumberOfLine("Name:\tx\nUid:\t1001\t0\t0\t0\n", "Uid:"), Optional(1001));
    for (const char* line :
         {"write_bytes: 40", "write_bytes: x\n", "write_bytes: 99999999999999999999\n", "write_bytes:"}) {
        EXPECT_EQ(NumberOfLine(line, "write_bytes:"), std::nullopt) << line;
    }
}

TEST(ProcTexts, ACommandNameCannotPassForOtherFields) {
    const auto stat =
        ParseProcessStat("17 (a) R 9) (b)) T 1 1 1 0 -1 2097216 0 0 0 0 0 0 0 0 20 0 1 0 4242 0 0");
    ASSERT_TRUE(stat.has_value());
    EXPECT_TRUE(stat->IsStopped() && stat->IsKernelThread() && stat->startTime == 4242);
    EXPECT_FALSE(ParseProcessStat("17 (a").has_value());
    EXPECT_FALSE(ParseProcessStat("17 (a) S 1 2 3").has_value());
    // Cut off in the middle of the start time.
    EXPECT_FALSE(ParseProcessStat("17 (a) S 1 1 1 0 -1 2097216 0 0 0 0 0 0 0 0 20 0 1 0 42").has_value());
    for (const char* text : {"", " 1", "+1", "1 ", "0x1", "12a", "99999999999999999999"}) {
        EXPECT_FALSE(ParseDecimal(text).has_value()) << text;
    }
}

}  // namespace KITE::Linux
