#pragma once

#include <fcntl.h>

#include "fixture.h"
#include "resource_quota_control_errors.h"

namespace KITE::Integration {

using namespace ResourceQuotaCtl;

// A service that answers in the end, and holds no more descriptors and threads than before.
class UnharmedServiceTest : public SystemTest {
  protected:
    void SetUp() override {
        SystemTest::SetUp();
        std::vector<std::string> rules;
        rules.reserve(500);
        for (int i = 0; i < 500; ++i) {
            rules.push_back(Rule("extension_with_a_long_name_" + std::to_string(i), "cpu", 10, "kill", i));
        }
        SetPolicy(rules);
        StartWithFakeManager();
        EXPECT_EQ(0, Manager().Report({Anomaly(StartTarget("first", {"idle"}), "cpu", "warning")}));
        EXPECT_TRUE(QuotaHost().log.Await("action is warning"));
        ExpectPromptAnswer();
        EXPECT_EQ(ERR_OK,
                  Connect(kTrustedUid).Dump("-h", Linux::UniqueFd(open("/dev/null", O_WRONLY)).Get()).status);
        descriptors_ = Service().DescriptorCount();
        threads_ = Service().ThreadCount();
    }
    void TearDown() override {
        ExpectPromptAnswer();
        EXPECT_TRUE(Eventually([this] {
            return Service().DescriptorCount() <= descriptors_ && Service().ThreadCount() <= threads_;
        })) << Service().DescriptorCount()
            << " descriptors after " << descriptors_ << ", " << Service().ThreadCount() << " threads after "
            << threads_;
        SystemTest::TearDown();
    }
    Process& Service() { return QuotaHost().process; }

  private:
    size_t descriptors_ = 0;
    size_t threads_ = 0;
};

}  // namespace KITE::Integration
