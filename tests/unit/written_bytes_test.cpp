#include <sys/mman.h>
#include <unistd.h>

#include <string_view>

#include "resource_quota_control_io_helper.h"
#include "service_fixture.h"

namespace KITE::ResourceQuotaCtl {

namespace {

constexpr uint64_t kUnreadable = 18446744073709551615U;

class IoTest : public ServiceTest {
  protected:
    ~IoTest() override { umount(path_.c_str()); }

    // Another file in the place of this process's io file, seen by this process alone.
    bool MountOverIo(const std::string& file) {
        return UnshareMounts() && mount(file.c_str(), path_.c_str(), nullptr, MS_BIND, nullptr) == 0;
    }
    // The bytes, or kUnreadable after a failure, which logs one line.
    uint64_t ReadOwn() {
        platform.ClearTrace();
        uint64_t bytes = 0;
        const bool isRead = ResourceQuotaControlIoHelper::GetWriteBytesByPid(getpid(), bytes);
        const std::string failure = "E Failed to get io data from file " + path_ + ".";
        EXPECT_EQ(platform.Trace(), isRead ? std::vector<std::string>() : std::vector{failure});
        return isRead ? bytes : kUnreadable;
    }

    const std::string path_ = "/proc/" + std::to_string(getpid()) + "/io";
};

TEST_F(IoTest, ThereIsOneEntryForEachPidInOrder) {
    std::vector<uint64_t> bytes{5};
    ResourceQuotaControlIoHelper::GetIoWriteBytes({}, bytes);
    EXPECT_THAT(bytes, ElementsAre(5));
    EXPECT_THAT(platform.Trace(), ElementsAre("E pid vector size is invalid."));
    platform.ClearTrace();
    ResourceQuotaControlIoHelper::GetIoWriteBytes({getpid(), 99999999, getpid()}, bytes);
    EXPECT_THAT(bytes, ElementsAre(5, testing::Ne(kUnreadable), kUnreadable, testing::Ne(kUnreadable)));
    EXPECT_THAT(platform.Trace(), ElementsAre("E file /proc/99999999/io "
                                              "not found, can not get io data.",
                                              "I writeBytes.size() 4"));
}

TEST_F(IoTest, AValueIsWhatFollowsTheFirstColon) {
    const std::tuple<const char*, uint64_t, bool> cases[] = {{"write_bytes: 4096", 4096, true},
                                                             {"write_bytes:", 0, true},
                                                             {":12:34", 12, true},
                                                             {"a: \t7x8", 7, true},
                                                             {"a: 99999999999999999999", kUnreadable, true},
                                                             {"", 77, false},
                                                             {"write_bytes 4", 77, false}};
    for (const auto& [line, expected, isValue] : cases) {
        uint64_t value = 77;
        EXPECT_EQ(ResourceQuotaControlIoHelper::GetValueFromStr(line, value), isValue) << line;
        EXPECT_EQ(value, expected) << line;
    }
}

TEST_F(IoTest, OnlyTheFirstLineThatBeginsWithTheKeyCounts) {
    const std::string name = AddLayer("");
    if (!MountOverIo(name)) {
        GTEST_SKIP() << "needs the right to mount";
    }
    const std::pair<std::string, uint64_t> cases[] = {
        {"wchar: 1\ncancelled_write_bytes: 2\nwrite_bytes: 3\nwrite_bytes: 4\n", 3},
        {std::string(1020, 'x') + "\nwrite_bytes: 5" + std::string(2000, ' ') + "\n", 5},
        {"write_bytes:", 0},
        {"xwrite_bytes: 3\nwrite_bytes 4\ncancelled_write_bytes: 2\n", kUnreadable}};
    for (const auto& [text, expected] : cases) {
        std::ofstream(name) << text;
        EXPECT_EQ(ReadOwn(), expected) << text;
    }
}

TEST_F(IoTest, AReadErrorWithinTheNumberIsAFailureAndNoShorterNumber) {
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
    GTEST_SKIP() << "ThreadSanitizer ends a process that maps address 0";
#endif
#endif
    // The io file is this process's memory from address 0 on: a page that ends within the number, and none
    // behind.
    std::string page(static_cast<size_t>(sysconf(_SC_PAGESIZE)), 'x');
    constexpr std::string_view kCut = "\nwrite_bytes: 123";
    page.replace(page.size() - kCut.size(), kCut.size(), kCut);
    const void* mapped =
        mmap(nullptr, page.size(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    if (mapped != nullptr || !(std::ofstream("/proc/self/mem") << page << std::flush) ||
        !MountOverIo("/proc/self/mem")) {
        GTEST_SKIP() << "needs the rights to mount and to map address 0";
    }
    EXPECT_EQ(ReadOwn(), kUnreadable);
}

}  // namespace

}  // namespace KITE::ResourceQuotaCtl
