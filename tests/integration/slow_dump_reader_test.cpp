#include "fixture.h"
#include "resource_quota_control_errors.h"

namespace KITE::Integration {

using SlowDumpReaderTest = UnharmedServiceTest;
using namespace ResourceQuotaCtl;

TEST_F(SlowDumpReaderTest, ADescriptorThatTakesNothingFailsTheDumpAndHoldsUpNoOtherCaller) {
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
    ExpectLogged({"save to fd failed."});
    ExpectPromptAnswer();
}

}  // namespace KITE::Integration
