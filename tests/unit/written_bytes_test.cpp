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

    // Another file in the place of this process's io file, seen by this process
    // alone.
    bool MountOverIo(const std::string& file) {
        return UnshareMounts() && mount(file.c_str(), path_.c_str(), nullptr, MS_BIND, nullptr) == 0;
    }
    std::vector<std::string> ReadOwn(bool expected) {
        platform.ClearTrace();
        uint64_t bytes = 0;
        EXPECT_EQ(ResourceQuotaControlIoHelper::GetWriteBytesByPid(getpid(), bytes), expected);
        read_ = bytes;
        return platform.Trace();
    }

    const std::string path_ = "/proc/" + std::to_string(getpid()) + "/io";
    const std::string failure_ = "E Failed to get io data from file " + path_ + ".";
    uint64_t read_ = 0;
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
    const std::pair<const char*, uint64_t> cases[] = {{"write_bytes: 4096", 4096},
                                                      {"write_bytes:", 0},
                                                      {":12:34", 12},
                                                      {"a: \t7x8", 7},
                                                      {"a: 99999999999999999999", kUnreadable}};
    for (const auto& [line, expected] : cases) {
        uint64_t value = 77;
        EXPECT_TRUE(ResourceQuotaControlIoHelper::GetValueFromStr(line, value));
        EXPECT_EQ(value, expected) << line;
    }
    uint64_t value = 77;
    EXPECT_FALSE(ResourceQuotaControlIoHelper::GetValueFromStr("", value));
    EXPECT_FALSE(ResourceQuotaControlIoHelper::GetValueFromStr("write_bytes 4", value));
    EXPECT_EQ(value, 77U);
}

TEST_F(IoTest, OnlyTheFirstLineThatBeginsWithTheKeyCounts) {
    const std::string name = AddLayer("");
    if (!MountOverIo(name)) {
        GTEST_SKIP() << "needs the right to mount";
    }
    const std::pair<std::string, uint64_t> cases[] = {
        {"wchar: 1\ncancelled_write_bytes: 2\nwrite_bytes: 3\nwrite_bytes: 4\n", 3},
        {std::string(1020, 'x') + "\nwrite_bytes: 5" + std::string(2000, ' ') + "\n", 5},
        {"write_bytes:", 0}};
    for (const auto& [text, expected] : cases) {
        std::ofstream(name) << text;
        EXPECT_THAT(ReadOwn(true), IsEmpty());
        EXPECT_EQ(read_, expected);
    }
    std::ofstream(name) << "xwrite_bytes: 3\nwrite_bytes 4\ncancelled_write_bytes: 2\n";
    EXPECT_THAT(ReadOwn(false), ElementsAre(failure_));
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
    EXPECT_THAT(ReadOwn(false), ElementsAre(failure_));
}

}  // namespace

}  // namespace KITE::ResourceQuotaCtl
