#include <linux/magic.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/vfs.h>

#include <future>
#include <numeric>

#include "file_utils.h"
#include "platform_fixture.h"

// Descriptors that other processes gave us: what may be written to them, and how long a reader may take.

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
using DescriptorTest = DirectoryTest;

struct Sockets : Pipe {
    Sockets() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        readEnd = UniqueFd(ends[0]);
        writeEnd = UniqueFd(ends[1]);
    }
};

std::string LargeText() {
    std::string text(1 << 20, '\0');
    std::iota(text.begin(), text.end(), '\0');
    return text;
}

TEST(SaveStringToFdTest, AReaderGetsTheWholeTextOrCostsTwoSecondsOrIsAnErrorAndNoSignal) {
    const std::string text = LargeText();
    for (Pipe& ends : std::array{Pipe(), Pipe(Sockets())}) {
        std::future<std::string> slow =
            std::async(std::launch::async, [fd = ends.readEnd.Get()] { return ReadAll(fd); });
        EXPECT_TRUE(SaveStringToFd(ends.writeEnd.Get(), text));
        EXPECT_EQ(fcntl(ends.writeEnd.Get(), F_GETFL) & O_NONBLOCK, 0);
        ends.writeEnd = UniqueFd();
        EXPECT_EQ(slow.get(), text);
    }
    for (Pipe& ends : std::array{Pipe(), Pipe(Sockets())}) {
        const auto start = Clock::now();
        EXPECT_FALSE(SaveStringToFd(ends.writeEnd.Get(), text));
        EXPECT_GE(Clock::now() - start, 1900ms);
        EXPECT_LT(Clock::now() - start, 4s);
        ends.readEnd = UniqueFd();
        EXPECT_FALSE(SaveStringToFd(ends.writeEnd.Get(), "text"));
    }
}

TEST_F(DescriptorTest, SaveStringToFdKnowsWhatItMayWriteTo) {
    const auto isWritten = [](const std::string& path, int flags) {
        return SaveStringToFd(UniqueFd(open(path.c_str(), flags | O_CLOEXEC, 0600)).Get(), LargeText());
    };
    EXPECT_TRUE(isWritten(Path("file"), O_WRONLY | O_CREAT));
    EXPECT_EQ(Get("file"), LargeText());
    EXPECT_TRUE(isWritten("/dev/null", O_WRONLY));
    EXPECT_FALSE(isWritten("/dev/full", O_WRONLY));
    EXPECT_FALSE(isWritten("/dev/null", O_RDONLY));
    EXPECT_FALSE(isWritten("no such file", O_WRONLY));
    // A regular file whose writes take nothing.
    Integration::Process ended({.program = "/bin/sleep", .arguments = {"sleep", "1000"}});
    const UniqueFd memory(
        open(("/proc/" + std::to_string(ended.Pid()) + "/mem").c_str(), O_RDWR | O_CLOEXEC));
    ended.Signal(SIGKILL);
    EXPECT_EQ(ended.AwaitEnd(), SIGKILL);
    EXPECT_FALSE(SaveStringToFd(memory.Get(), "text"));
    for (const uint32_t served :
         std::initializer_list<uint32_t>{FUSE_SUPER_MAGIC, NFS_SUPER_MAGIC, SMB2_SUPER_MAGIC, V9FS_MAGIC}) {
        claimedFileSystem = served;
        EXPECT_FALSE(isWritten(Path("file"), O_WRONLY)) << served;
    }
    claimedFileSystem.reset();
}

TEST(SaveStringToFdTest, AStoppedTerminalDoesNotHoldTheCaller) {
    const UniqueFd master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    char name[64];
    ASSERT_TRUE(grantpt(master.Get()) == 0 && unlockpt(master.Get()) == 0);
    ASSERT_EQ(ptsname_r(master.Get(), name, sizeof(name)), 0);
    const UniqueFd terminal(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_TRUE(SaveStringToFd(terminal.Get(), "text\n"));
    EXPECT_FALSE(SaveStringToFd(UniqueFd(open(name, O_RDONLY | O_NOCTTY | O_CLOEXEC)).Get(), "text\n"));
    const auto start = Clock::now();
    EXPECT_FALSE(SaveStringToFd(terminal.Get(), LargeText()));
    EXPECT_LT(Clock::now() - start, 4s);
}

TEST_F(DescriptorTest, LoadStringFromFileReadsFilesThatDoNotKnowTheirSize) {
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

}  // namespace
}  // namespace KITE::Linux
