#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <initializer_list>
#include <string>

#include "tested_system.h"

namespace KITE::Integration {

// What the quota host's log says of stages and actions.
inline constexpr const char* kSuppressed = "process enter suppress";
inline constexpr const char* kSuppressionEnded = "process exit suppress";
inline constexpr const char* kFrozen = "freeze process, pid is";

// A system for each test. Ends everything after the test, and fails it when a host does not stop as it must,
// or a sanitizer had something to say.
class SystemTest : public testing::Test, public TestedSystem {
  protected:
    void TearDown() override;

    // The service answers a trusted caller correctly within a second.
    void ExpectPromptAnswer();
    // Waits for these, one after the other, behind what was found there before.
    static void ExpectIn(LogFile& log, std::initializer_list<std::string> texts);
    void ExpectLogged(std::initializer_list<std::string> texts) { ExpectIn(QuotaHost().log, texts); }
    // The fake manager reports; the quota host has handled it when it logs the text.
    void Report(const std::vector<Kelvra::ProcessAnomalyInfo>& batch, const std::string& text) {
        ASSERT_EQ(0, Manager().Report(batch));
        ExpectLogged({text});
    }
    void KillQuotaHost() {
        QuotaHost().process.Signal(SIGKILL);
        ASSERT_EQ(SIGKILL, QuotaHost().process.AwaitEnd());
    }
    void ExpectNoTraces() const { EXPECT_EQ(std::vector<std::string>(), TracesOfTreatments()); }
};

inline void ExpectContains(const std::string& text, std::initializer_list<std::string> parts) {
    for (const std::string& part : parts) {
        EXPECT_THAT(text, testing::HasSubstr(part));
    }
}

// After the test the service answers, and holds no more descriptors and threads than before.
class UnharmedServiceTest : public SystemTest {
  protected:
    void SetUp() override;
    void TearDown() override;
    Process& Service() { return QuotaHost().process; }

  private:
    size_t descriptors_ = 0;
    size_t threads_ = 0;
};

}  // namespace KITE::Integration
