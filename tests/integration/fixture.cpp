#include "fixture.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>

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

}  // namespace KITE::Integration
