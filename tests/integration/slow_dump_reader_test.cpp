#include "unharmed_service.h"

// A dump to a descriptor that takes nothing.
namespace KITE::Integration {

using SlowDumpReaderTest = UnharmedServiceTest;

TEST_F(SlowDumpReaderTest, ADescriptorThatTakesNothingFailsTheDumpAndHoldsUpNobodyElse) {
    BusClient client = Connect(kTrustedUid);
    Pipe closed;
    closed.readEnd = Linux::UniqueFd();
    EXPECT_EQ(ERR_RQC_DUMP_FAILED, client.Dump("-h", closed.writeEnd.Get()).status);
    ExpectPromptAnswer();
    Pipe full;
    full.Fill();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(ERR_RQC_DUMP_FAILED, client.Dump("-h", full.writeEnd.Get()).status);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
    EXPECT_TRUE(QuotaHost().log.Await("save to fd failed."));
    ExpectPromptAnswer();
}

}  // namespace KITE::Integration
