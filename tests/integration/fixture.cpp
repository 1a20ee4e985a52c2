#include "fixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>

#include "resource_quota_control_errors.h"

namespace KITE::Integration {

void SystemTest::TearDown() {
    constexpr const char* kReports =
        "ERROR: AddressSanitizer|WARNING: ThreadSanitizer|runtime error|LeakSanitizer";
    DropManager();
    const Linux::Result<void> stopped = StopHosts();
    EXPECT_TRUE(stopped) << (stopped ? "" : stopped.Why().Text());
    for (const auto& file : std::filesystem::directory_iterator(Directory())) {
        if (!file.path().filename().string().starts_with("log.")) {
            continue;
        }
        const std::string text = ReadWholeFile(file.path());
        EXPECT_THAT(text, testing::Not(testing::ContainsRegex(kReports)));
        if (HasFailure()) {
            std::cerr << "--- " << file.path() << "\n"
                      << text.substr(text.size() - std::min<size_t>(text.size(), 20'000)) << "\n";
        }
    }
}

void SystemTest::ExpectPromptAnswer() {
    BusClient client = Connect(kTrustedUid);
    const auto begin = std::chrono::steady_clock::now();
    const Answer answer = client.AskWrittenBytes({getpid()});
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_EQ("", answer.error);
    EXPECT_EQ(0, answer.status);
    EXPECT_EQ(1U, WrittenBytesOf(answer).size());
}

void SystemTest::ExpectIn(LogFile& log, std::initializer_list<std::string> texts) {
    for (const std::string& text : texts) {
        EXPECT_TRUE(log.Await(text)) << text;
    }
}

void UnharmedServiceTest::SetUp() {
    SystemTest::SetUp();
    std::vector<std::string> rules;
    rules.reserve(500);
    for (int i = 0; i < 500; ++i) {
        rules.push_back(Rule("extension_with_a_long_name_" + std::to_string(i), "cpu", 10, "kill", i));
    }
    SetPolicy(rules);
    StartWithFakeManager();
    Report({Anomaly(StartTarget("first", {"idle"}), "cpu", "warning")}, "action is warning");
    ExpectPromptAnswer();
    const Linux::UniqueFd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(ResourceQuotaCtl::ERR_OK, Connect(kTrustedUid).Dump("-h", null.Get()).status);
    descriptors_ = Service().DescriptorCount();
    threads_ = Service().ThreadCount();
}

void UnharmedServiceTest::TearDown() {
    ExpectPromptAnswer();
    EXPECT_TRUE(Eventually([this] {
        return Service().DescriptorCount() <= descriptors_ && Service().ThreadCount() <= threads_;
    })) << Service().DescriptorCount()
        << " descriptors after " << descriptors_ << ", " << Service().ThreadCount() << " threads after "
        << threads_;
    SystemTest::TearDown();
}

}  // namespace KITE::Integration
