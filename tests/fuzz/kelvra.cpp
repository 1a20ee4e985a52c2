// What comes to the Kelvra manager and from it: requests, and batches of reports.

#include <optional>

#include "fuzz.h"
#include "ipc/access.h"
#include "kelvra_manager/client/subscriber_stub.h"
#include "kelvra_manager/manager/manager_stub.h"
#include "kelvra_manager/protocol.h"
#include "runtime/access_tokens.h"
#include "runtime/settings.h"

using namespace KITE;
using namespace KITE::Fuzz;
using namespace KITE::Linux;

namespace {

constexpr uid_t kQuotaService = 1001;

void Request(Input& input) {
    const auto reporter = std::make_shared<Sampling::Reporter>();
    const auto sampler = std::make_shared<Sampling::Sampler>(std::chrono::seconds(1), 10, reporter);
    const auto manager = MakeSptr<Sampling::ManagerStub>(sampler);
    const bool isTrusted = input.ConsumeIntegralInRange(0, 7) != 0;
    const Caller caller{":1.1", isTrusted ? std::optional(kQuotaService) : std::nullopt};
    const CallingScope scope(caller);
    const auto code = input.ConsumeIntegralInRange<uint32_t>(1, 3);
    MessageParcel request = TheRest(input);
    MessageParcel reply;
    MessageOption option;
    const int32_t status = manager->OnRemoteRequest(code, request, reply, option);
    const bool isDone = status == ERR_NONE;
    Require((isTrusted || status == ERR_REFUSED) && reply.ReadableBytes() == 0);
    Require(reporter->HasSubscriber() == (isDone && code == KelvraProtocol::kSubscribe));
    Require(!isDone || code == KelvraProtocol::kSubscribe || request.ReadableBytes() == 0);
}

struct Counting : Kelvra::KelvraManagerTaskSubscriber {
    void OnReportAbnormalProcess(const std::vector<Kelvra::ProcessAnomalyInfo>& infos) override {
        records += infos.size();
    }
    size_t records = 0;
};

void TakeBatch(Input& input) {
    const auto stub = MakeSptr<SubscriberStub>();
    const auto subscriber = std::make_shared<Counting>();
    stub->SetSubscriber(subscriber);
    MessageParcel batch = TheRest(input);
    MessageParcel copy = batch;
    MessageOption option;
    Require(stub->OnRemoteRequest(KelvraProtocol::kReport, copy, copy, option) == ERR_REFUSED);
    uint32_t count = 0;
    if (stub->TakeBatch(batch) == ERR_NONE) {
        Require(copy.ReadUint32(count) && count > 0);
    }
    Require(subscriber->records == count);
}

bool GiveTheQuotaServiceItsToken() {
    SetSettings({".", ".", "unix:path=./none"});
    WriteFile("tokens.json", R"({"tokens": [{"uid": 1001, "process_name": "resource_quota_control"}]})");
    return static_cast<bool>(LoadAccessTokens());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool isReady = GiveTheQuotaServiceItsToken();
    Require(isReady);
    Input input(data, size);
    (input.ConsumeBool() ? TakeBatch : Request)(input);
    return 0;
}
