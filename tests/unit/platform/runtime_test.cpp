#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/vfs.h>

#include <linux/magic.h>
#include <future>
#include <nlohmann/json.hpp>
#include <numeric>
#include <sstream>

#include "access_token.h"
#include "base/nonblocking_writer.h"
#include "config_policy.h"
#include "file_utils.h"
#include "parameters.h"
#include "platform_fixture.h"
#include "runtime/access_tokens.h"
#include "runtime/event_file.h"
#include "runtime/log/journal_log.h"
#include "runtime/log/stderr_log.h"
#include "runtime/platform_log.h"
#include "runtime/task_runtime.h"
#include "system_event.h"

// What every file's system says that it is, where a test sets it.
static std::optional<uint32_t> claimedFileSystem;

// Takes the place of the C library's function.
extern "C" [[gnu::visibility("default")]] int fstatfs(int fd, struct statfs* status) noexcept {
    const auto result = static_cast<int>(syscall(SYS_fstatfs, fd, status));
    status->f_type = claimedFileSystem.value_or(static_cast<uint32_t>(status->f_type));
    return result;
}

namespace KITE::Linux {
namespace {

using Integration::Pipe;
using RuntimeTest = DirectoryTest;

Pipe MakeSockets() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    Pipe sockets;
    sockets.readEnd = UniqueFd(ends[0]);
    sockets.writeEnd = UniqueFd(ends[1]);
    return sockets;
}

std::string ReadAll(int fd) {
    std::string text;
    char piece[4096];
    for (ssize_t n = 0; (n = read(fd, piece, sizeof(piece))) > 0;) {
        text.append(piece, static_cast<size_t>(n));
    }
    return text;
}

std::string LargeText() {
    std::string text(1 << 20, '\0');
    std::iota(text.begin(), text.end(), '\0');
    return text;
}

LogLine Line(std::string_view text, Log::Level level = Log::Level::kInfo) {
    return {level, {0xD001716, "TAG"}, {"unit", "Function", 7}, text};
}

std::string FormatWith(std::span<char> buffer, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text(FormatLogText(buffer, format, arguments));
    va_end(arguments);
    return text;
}

TEST(LogLineTest, ALineThatDoesNotFitIsCutBetweenCharactersAndSaysSo) {
    std::vector<char> buffer(256);
    EXPECT_EQ(FormatWith(buffer, "%s", std::string(255, 'x').c_str()), std::string(255, 'x'));
    for (size_t ascii = 0; ascii < 3; ++ascii) {
        std::string text(ascii, 'x');
        for (int i = 0; i < 100; ++i) {
            text += "\u20ac";
        }
        const std::string cut = FormatWith(buffer, "%s", text.c_str());
        const size_t mark = cut.find(" [cut: " + std::to_string(text.size()) + " bytes in all]");
        ASSERT_NE(mark, std::string::npos);
        EXPECT_LE(cut.size(), buffer.size());
        EXPECT_GE(cut.size() + 3, buffer.size());
        EXPECT_EQ((mark - ascii) % 3, 0U);
    }
}

class JournalTest : public RuntimeTest {
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

    UniqueFd socket_;
};

TEST_F(JournalTest, ALineIsOneDatagramOfFields) {
    Listen();
    JournalLog journal(Path("journal").c_str());
    ASSERT_FALSE(journal.Send(Line("text", Log::Level::kError)));
    EXPECT_EQ(Receive(),
              "PRIORITY=3\nSYSLOG_IDENTIFIER=TAG\nKITE_DOMAIN=0xd001716\nCODE_FILE=unit\n"
              "CODE_FUNC=Function\nCODE_LINE=7\nMESSAGE=text\n");
    ASSERT_FALSE(journal.Send(Line("a\nPRIORITY=0")));
    EXPECT_TRUE(Receive().ends_with(std::string("MESSAGE\n\x0c\0\0\0\0\0\0\0a\nPRIORITY=0\n", 29)));
}

TEST_F(JournalTest, AFullJournalCostsLinesButNoTimeAndTheirCountFollows) {
    Listen();
    JournalLog journal(Path("journal").c_str());
    const auto start = Clock::now();
    for (int i = 0; i < 10000; ++i) {
        ASSERT_FALSE(journal.Send(Line("text")));
    }
    EXPECT_LT(Clock::now() - start, 5s);
    int received = 0;
    while (Receive().find("MESSAGE=text\n") != std::string::npos) {
        ++received;
    }
    ASSERT_LT(received, 10000);
    ASSERT_FALSE(journal.Send(Line("after")));
    EXPECT_NE(Receive().find(" " + std::to_string(10000 - received) + " log lines were dropped"),
              std::string::npos);
    EXPECT_NE(Receive().find("MESSAGE=after\n"), std::string::npos);
    EXPECT_EQ(Receive(), "");
}

TEST_F(JournalTest, AJournalMayComeAndGoAndComeAgain) {
    JournalLog journal(Path("journal").c_str());
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(journal.Send(Line("text")));
        Listen();
        EXPECT_FALSE(journal.Send(Line("text")));
        EXPECT_NE(Receive(), "");
        socket_ = UniqueFd();
        EXPECT_TRUE(journal.Send(Line("text")));
        std::filesystem::remove(Path("journal"));
    }
}

TEST(StderrLogTest, ALineHasTimeLevelAndTagAndCannotForgeAnother) {
    Pipe pipe;
    {
        StderrLog log(pipe.writeEnd.Get());
        log.Write(Line("one\n2024 E\x1b[2J \t\x7f\xc3\xa4", Log::Level::kWarning));
    }
    pipe.writeEnd = UniqueFd();
    std::string text = ReadAll(pipe.readEnd.Get());
    ASSERT_GT(text.size(), 24U);
    std::replace_if(
        text.begin(), text.begin() + 24, [](char byte) { return byte >= '0' && byte <= '9'; }, '#');
    EXPECT_EQ(text, "####-##-##T##:##:##.###Z W TAG: one\\n2024 E\\x1b[2J \\x09\\x7f\xc3\xa4\n");
}

size_t CountOf(const std::string& what, const std::string& text) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
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
    while (all.find(" log lines were dropped\n") == std::string::npos) {
        char piece[65536];
        const ssize_t length = read(pipe.readEnd.Get(), piece, sizeof(piece));
        ASSERT_GT(length, 0);
        all.append(piece, static_cast<size_t>(length));
    }
    log.Stop();
    log.Write(Line("last"));
    pipe.writeEnd = UniqueFd();
    all += ReadAll(pipe.readEnd.Get());
    const size_t written = CountOf(text + "\n", all);
    EXPECT_GE(written, StderrLog::kMaxLines);
    EXPECT_EQ(CountOf("\n", all), written + 2);
    EXPECT_NE(all.find("(DropNotice):"), std::string::npos);
    EXPECT_NE(all.find(" " + std::to_string(20000 - written) + " log lines were dropped\n"),
              std::string::npos);
    EXPECT_TRUE(all.ends_with("TAG: last\n"));
}

TEST(StderrLogTest, StoppingGivesAStalledReaderASecondAndLosesNoQueuedLine) {
    Pipe pipe;
    StderrLog log(pipe.writeEnd.Get());
    for (int i = 0; i < 2000; ++i) {
        log.Write(Line(std::string(100, 'x')));
    }
    const auto start = Clock::now();
    log.Stop();
    EXPECT_GE(Clock::now() - start, 900ms);
    EXPECT_LT(Clock::now() - start, 3s);
    std::string all;
    fcntl(pipe.readEnd.Get(), F_SETFL, O_NONBLOCK);
    while (CountOf("\n", all) < 2000) {
        const std::string more = ReadAll(pipe.readEnd.Get());
        ASSERT_FALSE(more.empty());
        all += more;
        log.Write(Line("y"));
    }
    EXPECT_EQ(CountOf("xx\n", all), 2000U);
}

// Writes until the pipe is full; what is left begins with bytes that wait in the writer.
std::string_view Fill(NonblockingWriter& writer, std::string_view text) {
    Result<size_t> written = writer.Write(text);
    for (; written; written = writer.Write(text)) {
        text.remove_prefix(*written);
    }
    EXPECT_EQ(written.Code(), ErrorOf(EAGAIN));
    return text;
}

TEST_F(RuntimeTest, AReaderOfANamedPipeThatComesBackGetsNothingOfATextThatWasGivenUp) {
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
    const auto openReader = [this] {
        return UniqueFd(open(Path("fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    };
    UniqueFd reader = openReader();
    const UniqueFd fifo(open(Path("fifo").c_str(), O_WRONLY | O_CLOEXEC));
    NonblockingWriter writer(fifo.Get(), NonblockingWriter::Doubtful::kRefuse);
    ASSERT_EQ(*writer.Write("x"), 1U);  // takes a page of the pipe, so that not all of the large text fits
    const std::string text = LargeText();
    std::string_view left = Fill(writer, text);
    ReadAll(reader.Get());
    EXPECT_EQ(*writer.Write(left.substr(0, 5)), 5U);
    EXPECT_EQ(ReadAll(reader.Get()), left.substr(0, 5));
    left = Fill(writer, left.substr(5));
    reader = UniqueFd();
    EXPECT_EQ(writer.Write(left).Code(), ErrorOf(EPIPE));
    reader = openReader();
    ReadAll(reader.Get());
    EXPECT_EQ(*writer.Write("next"), 4U);
    EXPECT_EQ(ReadAll(reader.Get()), "next");
}

TEST(SaveStringToFdTest, AReaderGetsTheWholeTextOrCostsTwoSecondsOrIsAnErrorAndNoSignal) {
    const std::string text = LargeText();
    for (Pipe& ends : std::array{Pipe(), MakeSockets()}) {
        std::future<std::string> slow =
            std::async(std::launch::async, [fd = ends.readEnd.Get()] { return ReadAll(fd); });
        EXPECT_TRUE(SaveStringToFd(ends.writeEnd.Get(), text));
        EXPECT_EQ(fcntl(ends.writeEnd.Get(), F_GETFL) & O_NONBLOCK, 0);
        ends.writeEnd = UniqueFd();
        EXPECT_EQ(slow.get(), text);
    }
    for (Pipe& ends : std::array{Pipe(), MakeSockets()}) {
        const auto start = Clock::now();
        EXPECT_FALSE(SaveStringToFd(ends.writeEnd.Get(), text));
        EXPECT_GE(Clock::now() - start, 1900ms);
        EXPECT_LT(Clock::now() - start, 4s);
        ends.readEnd = UniqueFd();
        EXPECT_FALSE(SaveStringToFd(ends.writeEnd.Get(), "text"));
    }
}

TEST_F(RuntimeTest, SaveStringToFdKnowsWhatItMayWriteTo) {
    const UniqueFd file(open(Path("file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_TRUE(SaveStringToFd(file.Get(), LargeText()));
    EXPECT_EQ(Get("file"), LargeText());
    EXPECT_TRUE(SaveStringToFd(UniqueFd(open("/dev/null", O_WRONLY | O_CLOEXEC)).Get(), "text"));
    EXPECT_FALSE(SaveStringToFd(UniqueFd(open("/dev/full", O_WRONLY | O_CLOEXEC)).Get(), "text"));
    EXPECT_FALSE(SaveStringToFd(UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC)).Get(), "text"));
    EXPECT_FALSE(SaveStringToFd(-1, "text"));
    for (const uint32_t served :
         std::initializer_list<uint32_t>{FUSE_SUPER_MAGIC, NFS_SUPER_MAGIC, SMB2_SUPER_MAGIC, V9FS_MAGIC}) {
        claimedFileSystem = served;
        EXPECT_FALSE(SaveStringToFd(file.Get(), "may wait for whoever serves it")) << served;
    }
    claimedFileSystem.reset();
}

TEST(SaveStringToFdTest, AStoppedTerminalDoesNotHoldTheCaller) {
    const UniqueFd master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(grantpt(master.Get()), 0);
    ASSERT_EQ(unlockpt(master.Get()), 0);
    char name[64];
    ASSERT_EQ(ptsname_r(master.Get(), name, sizeof(name)), 0);
    const UniqueFd terminal(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(terminal);
    EXPECT_TRUE(SaveStringToFd(terminal.Get(), "text\n"));
    const auto start = Clock::now();
    EXPECT_FALSE(SaveStringToFd(terminal.Get(), LargeText()));
    EXPECT_LT(Clock::now() - start, 4s);
}

TEST_F(RuntimeTest, LoadStringFromFileReadsFilesThatDoNotKnowTheirSize) {
    std::string text = "before";
    EXPECT_FALSE(LoadStringFromFile(Path("missing"), text));
    EXPECT_FALSE(LoadStringFromFile(directory_, text));
    EXPECT_FALSE(LoadStringFromFile("/dev/zero", text));
    EXPECT_EQ(text, "before");
    Put("file", LargeText());
    EXPECT_TRUE(LoadStringFromFile(Path("file"), text));
    EXPECT_EQ(text, LargeText());
    EXPECT_TRUE(LoadStringFromFile("/proc/self/cmdline", text));
    EXPECT_TRUE(text.ends_with('\0'));
    EXPECT_TRUE(LoadStringFromFile("/proc/self/smaps", text));
    EXPECT_NE(text.find("[stack]"), std::string::npos);
    Put("empty", "");
    EXPECT_TRUE(LoadStringFromFile(Path("empty"), text));
    EXPECT_EQ(text, "");
}

TEST_F(RuntimeTest, ParametersAreTextsNumbersOrBooleans) {
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

TEST_F(RuntimeTest, ConfigurationDirectoriesLeaveOutWhatOthersMayWrite) {
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

class AccessTokenTest : public RuntimeTest {
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

TEST_F(RuntimeTest, AnEventIsOneLineOfJson) {
    ASSERT_FALSE(RecordEvent("N", {{"PID", 5}, {"NAME", "a\n\xff"}, {"type", 9}}));
    ASSERT_EQ(QuillRec::Write("D", "M", QuillRec::EventType::kFault, {}), 0);
    std::istringstream lines(Get("events.jsonl"));
    std::string first;
    std::string second;
    std::string third;
    std::getline(lines, first);
    std::getline(lines, second);
    EXPECT_FALSE(std::getline(lines, third));
    nlohmann::json event = nlohmann::json::parse(first);
    EXPECT_GT(event["time"].get<int64_t>(), 1700000000000);
    event.erase("time");
    EXPECT_EQ(event, nlohmann::json::parse(
                         R"({"domain": "KITE", "name": "N", "type": 4, "PID": 5, "NAME": "a\n\ufffd"})"));
    EXPECT_EQ(nlohmann::json::parse(second)["type"], 1);
}

TEST_F(RuntimeTest, TheEventFileIsRotatedAndNeverReachedThroughALink) {
    const std::vector<EventItem> large{{"TEXT", std::string(3 << 20, 'x')}};
    for (int i = 0; i < 3; ++i) {
        ASSERT_FALSE(RecordEvent(std::to_string(i), large));
    }
    EXPECT_GT(Get("events.jsonl.1").size(), size_t{6} << 20);
    EXPECT_NE(Get("events.jsonl").find(R"("name":"2")"), std::string::npos);
    std::filesystem::remove(Path("events.jsonl"));
    Put("victim", "");
    std::filesystem::create_symlink(Path("victim"), Path("events.jsonl"));
    EXPECT_EQ(RecordEvent("N", {}), ErrorOf(ELOOP));
    std::filesystem::remove(Path("events.jsonl"));
    ASSERT_EQ(mkfifo(Path("events.jsonl").c_str(), 0600), 0);
    EXPECT_EQ(RecordEvent("N", {}), ErrorOf(ENXIO));
}

TEST(TaskRuntimeTest, StoppingRunsWhatIsSubmittedAndDropsWhatIsDelayed) {
    std::atomic<int> ran{0};
    const auto held = std::make_shared<int>(0);
    TaskRuntime runtime;
    std::promise<void> delayedRan;
    runtime.Submit([&] { delayedRan.set_value(); }, {"delayed", 20ms});
    const auto start = Clock::now();
    ASSERT_EQ(delayedRan.get_future().wait_for(10s), std::future_status::ready);
    EXPECT_GE(Clock::now() - start, 19ms);
    for (int i = 0; i < 10000; ++i) {
        runtime.Submit([&ran, held] { ran += 1000000; }, {"never", 1h});
    }
    runtime.Submit([] {}, {"for ever", std::chrono::microseconds::max()});
    runtime.Submit([] { throw std::runtime_error("on purpose"); }, {"thrower"});
    runtime.Submit([] { throw 1; }, {"thrower"});
    for (int i = 0; i < 1000; ++i) {
        runtime.Submit([&ran, held] { ++ran; }, {"now"});
    }
    runtime.Stop();
    EXPECT_EQ(ran, 1000);
    EXPECT_EQ(held.use_count(), 1);
    runtime.Submit([&ran] { ++ran; }, {"late"});
    runtime.Stop();
    EXPECT_EQ(ran, 1000);
}

TEST(TaskRuntimeTest, TasksRunBesideEachOther) {
    TaskRuntime runtime;
    std::promise<void> first;
    std::promise<bool> second;
    runtime.Submit([&] { second.set_value(first.get_future().wait_for(10s) == std::future_status::ready); },
                   {});
    runtime.Submit([&] { first.set_value(); }, {});
    EXPECT_TRUE(second.get_future().get());
}

}  // namespace
}  // namespace KITE::Linux
