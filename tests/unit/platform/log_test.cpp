#include <sys/socket.h>
#include <sys/un.h>

#include "platform_fixture.h"
#include "runtime/log/journal_log.h"
#include "runtime/log/stderr_log.h"

// A log line on its way to the journal and to standard error, with readers that stall.
namespace KITE::Linux {
namespace {

using namespace std::string_literals;
using Integration::Pipe;

LogLine Line(std::string_view text, Log::Level level = Log::Level::kInfo) {
    return {level, {0xD001716, "TAG"}, {"unit", "Function", 7}, text};
}

std::string FormatWith(std::span<char> buffer, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text(FormatLogText(buffer, {"unit", "Function", 7}, format, arguments));
    va_end(arguments);
    return text;
}

TEST(LogLineTest, ALineThatDoesNotFitIsCutBetweenCharactersAndSaysSo) {
    std::vector<char> buffer(256);
    const std::string prefix = "[unit(Function):7] ";
    const std::string longest(255 - prefix.size(), 'x');
    EXPECT_EQ(FormatWith(buffer, "%s", longest.c_str()), prefix + longest);
    for (size_t ascii = 0; ascii < 3; ++ascii) {
        std::string text(ascii, 'x');
        for (int i = 0; i < 100; ++i) {
            text += "\u20ac";
        }
        const std::string cut = FormatWith(buffer, "%s", text.c_str());
        const size_t mark =
            cut.find(" [cut: " + std::to_string(prefix.size() + text.size()) + " bytes in all]");
        ASSERT_NE(mark, std::string::npos);
        EXPECT_TRUE(cut.size() <= buffer.size() && cut.size() + 3 >= buffer.size()) << cut.size();
        EXPECT_EQ((mark - prefix.size() - ascii) % 3, 0U);
    }
}

class JournalTest : public DirectoryTest {
  protected:
    void Listen() {
        socket_ = UniqueFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        Path("journal").copy(address.sun_path, sizeof(address.sun_path) - 1);
        ASSERT_EQ(bind(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    }
    std::string Receive() {
        char datagram[65536];
        const ssize_t length = recv(socket_.Get(), datagram, sizeof(datagram), MSG_DONTWAIT);
        return length < 0 ? "" : std::string(datagram, static_cast<size_t>(length));
    }

    JournalLog journal_{Path("journal").c_str()};
    UniqueFd socket_;
};

TEST_F(JournalTest, ALineIsOneDatagramOfFields) {
    Listen();
    ASSERT_FALSE(journal_.Send(Line("a\nPRIORITY=0", Log::Level::kError)));
    EXPECT_EQ(Receive(),
              "PRIORITY=3\nSYSLOG_IDENTIFIER=TAG\nKITE_DOMAIN=0xd001716\nCODE_FILE=unit\n"
              "CODE_FUNC=Function\nCODE_LINE=7\nMESSAGE\n\x0c\0\0\0\0\0\0\0a\nPRIORITY=0\n"s);
}

TEST_F(JournalTest, AFullJournalCostsLinesButNoTimeAndTheirCountFollows) {
    Listen();
    const auto start = Clock::now();
    for (int i = 0; i < 10000; ++i) {
        ASSERT_FALSE(journal_.Send(Line("text")));
    }
    EXPECT_LT(Clock::now() - start, 5s);
    int received = 0;
    while (Receive().ends_with("text\n")) {
        ++received;
    }
    ASSERT_LT(received, 10000);
    ASSERT_FALSE(journal_.Send(Line("after")));
    EXPECT_TRUE(Receive().ends_with(" " + std::to_string(10000 - received) + " log lines were dropped\n"));
    EXPECT_TRUE(Receive().ends_with("after\n"));
    EXPECT_EQ(Receive(), "");
}

TEST_F(JournalTest, AJournalMayComeAndGoAndComeAgain) {
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(journal_.Send(Line("text")));
        Listen();
        EXPECT_FALSE(journal_.Send(Line("text")));
        EXPECT_NE(Receive(), "");
        socket_ = UniqueFd();
        EXPECT_TRUE(journal_.Send(Line("text")));
        std::filesystem::remove(Path("journal"));
    }
}

TEST(StderrLogTest, ALineHasTimeLevelAndTagAndCannotForgeAnother) {
    Pipe pipe;
    {
        StderrLog log(pipe.writeEnd.Get());
        log.Write(Line("one\n2024 E\x1b[2J \t\x7f\xc3\xa4", Log::Level::kWarning));
    }
    EXPECT_THAT(pipe.Text(), testing::MatchesRegex("....-..-..T..:..:..[.]...Z W TAG: "
                                                   "one.n2024 E.x1b.2J .x09.x7f\xc3\xa4\n"));
}

TEST(StderrLogTest, AReaderThatStallsNeverHoldsACallerAndIsToldWhatItMissed) {
    Pipe pipe;
    StderrLog log(pipe.writeEnd.Get());
    const std::string text(200, 'x');
    const auto start = Clock::now();
    for (int i = 0; i < 20000; ++i) {
        log.Write(Line(text));
    }
    EXPECT_LT(Clock::now() - start, 5s);
    std::string all;
    while (!all.ends_with(" log lines were dropped\n")) {
        char byte = 0;
        ASSERT_EQ(read(pipe.readEnd.Get(), &byte, 1), 1);
        all += byte;
    }
    log.Stop();
    log.Write(Line("last"));
    pipe.writeEnd = UniqueFd();
    all += ReadAll(pipe.readEnd.Get());
    const size_t written = CountOf(text + "\n", all);
    EXPECT_GE(written, StderrLog::kMaxLines);
    EXPECT_EQ(CountOf("\n", all), written + 2);
    EXPECT_EQ(CountOf(" " + std::to_string(20000 - written) + " log lines were dropped\n", all), 1U);
    EXPECT_TRUE(all.ends_with("TAG: last\n"));
}

TEST(StderrLogTest, StoppingGivesAStalledReaderASecondAndLosesNoQueuedLineAndCountsLaterOnes) {
    Pipe pipe;
    StderrLog log(pipe.writeEnd.Get());
    for (int i = 0; i < 2000; ++i) {
        log.Write(Line(std::string(100, 'x')));
    }
    const auto start = Clock::now();
    log.Stop();
    EXPECT_GE(Clock::now() - start, 900ms);
    EXPECT_LT(Clock::now() - start, 3s);
    for (size_t i = 0; i < 2 * StderrLog::kMaxLines; ++i) {
        log.Write(Line("y"));
    }
    std::string all;
    fcntl(pipe.readEnd.Get(), F_SETFL, O_NONBLOCK);
    for (int i = 0; i < 1000 && !all.ends_with("log lines were dropped\n"); ++i) {
        log.Write(Line("y"));
        const std::string more = ReadAll(pipe.readEnd.Get());
        ASSERT_FALSE(more.empty());
        all += more;
    }
    EXPECT_EQ(CountOf("log lines were dropped\n", all), 1U);
    EXPECT_EQ(CountOf("xx\n", all), 2000U);
}

}  // namespace
}  // namespace KITE::Linux
