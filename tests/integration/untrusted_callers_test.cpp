#include <set>

#include "fixture.h"
#include "kelvra_manager/protocol.h"
#include "resource_quota_control_errors.h"

// Who may do what: each user tries everything. The whole table is docs/security.md.
namespace KITE::Integration {

namespace {

namespace Protocol = Linux::KelvraProtocol;
using namespace ResourceQuotaCtl;

struct Deed {
    const char* name;
    std::function<bool(BusClient&)> isDone;
    std::set<uid_t> permitted;
};

// The requests that only the quota service may send to the manager. And reports, which only the connection
// that owns the manager's name may send: not another one of the manager's user.
std::vector<Deed> RequestsAndReports(const MessageParcel& report) {
    MessageParcel subscription;
    subscription.WriteInterfaceToken(Protocol::kManagerDescriptor);
    MessageParcel quotas = subscription;
    subscription.WriteString(Protocol::kSubscriberPath);
    quotas.WriteInt32(0);
    quotas.WriteUint32(0);
    const auto transact = [](auto name, auto path, uint32_t code, const MessageParcel& request) {
        return [=](BusClient& client) {
            const Answer answer = client.Transact(name, path, code, request);
            return answer.error.empty() && answer.status == ERR_NONE;
        };
    };
    return {
        {"set quotas", transact(kKelvraName, kKelvraPath, Protocol::kSetProcessQuota, quotas), {kQuotaUid}},
        {"subscribe", transact(kKelvraName, kKelvraPath, Protocol::kSubscribe, subscription), {kQuotaUid}},
        {"report", transact(kQuotaName, Protocol::kSubscriberPath, Protocol::kReport, report), {}}};
}

const std::vector<Deed> kQuestions{
    {"ask for written bytes",
     [](BusClient& client) { return WrittenBytesOf(client.AskWrittenBytes({getpid()})).size() == 1; },
     {kTrustedUid}},
    {"ask for running times",
     [](BusClient& client) {
         int32_t result = ERR_RQC_PERMISSION_DENIED;
         return client.AskRunningTimes().reply.ReadInt32(result) && result == ERR_OK;
     },
     {kTrustedUid}},
    {"dump",
     [](BusClient& client) {
         Pipe pipe;
         return client.Dump("DumpConfig", pipe.writeEnd.Get()).status == ERR_OK || !pipe.Text().empty();
     },
     {kTrustedUid}}};

Deed Owning(int32_t abilityId, uid_t owner) {
    return {"own a name", [=](BusClient& client) { return client.Claim(abilityId); }, {owner}};
}

}  // namespace

class UntrustedCallersTest : public SystemTest {
  protected:
    void TryAll(uid_t user, const std::vector<Deed>& deeds) {
        for (const Deed& deed : deeds) {
            BusClient client = Connect(user);
            EXPECT_EQ(deed.permitted.contains(user), deed.isDone(client)) << deed.name << " as " << user;
        }
    }
};

TEST_F(UntrustedCallersTest, ANameCannotBeTakenBeforeItsHostStarts) {
    for (const uid_t user : {kTrustedUid, kUntrustedUid, kKelvraUid, kQuotaUid}) {
        TryAll(user,
               {Owning(Linux::kQuotaServiceId, kQuotaUid), Owning(KELVRA_MANAGER_SERVICE_ID, kKelvraUid)});
    }
}

TEST_F(UntrustedCallersTest, EachUserDoesWhatIsPermittedAndNothingElse) {
    SetPolicy({Rule("hog", "cpu", 10, "kill"), Rule("cold", "cpu", 10, "freeze")});
    StartWhole();
    Process& victim = StartTarget("victim", {"idle"});
    const std::vector<Deed> requests = RequestsAndReports(ReportOf({Anomaly(victim, "cpu", "kill")}));
    for (const uid_t user : {kTrustedUid, kUntrustedUid, kKelvraUid}) {
        TryAll(user, requests);
        TryAll(user, kQuestions);
    }
    StartTarget("cold", {"burn"});
    ExpectLogged({kFrozen});
    EXPECT_EQ(SIGKILL, StartTarget("hog", {"burn"}).AwaitEnd()) << "quotas and subscription are as they were";
    EXPECT_FALSE(victim.HasEnded());
    using std::filesystem::perms;
    EXPECT_EQ(perms::none, std::filesystem::status(State("/events.jsonl")).permissions() & perms::others_all);
    EXPECT_EQ(perms::owner_all, std::filesystem::status(State("/treated")).permissions());
    TryAll(kQuotaUid, requests);
    TryAll(kQuotaUid, kQuestions);
}

TEST_F(UntrustedCallersTest, RecordsAreNotKeptInADirectoryOfAnotherUser) {
    std::filesystem::create_directory(State("/treated"));
    StartWithFakeManager();
    Report({Anomaly(StartTarget("target", {"idle"}), "cpu", "freeze")},
           "(target) failed: Operation not permitted");
    EXPECT_TRUE(std::filesystem::is_empty(State("/treated")));
}

TEST_F(UntrustedCallersTest, ASenderThatHasGoneHasNoPermission) {
    StartWithFakeManager();
    const Process& host = QuotaHost().process;
    host.Signal(SIGSTOP);
    ASSERT_TRUE(host.AwaitState('T'));
    Connect(kTrustedUid).Send(IResourceQuotaControl::GET_EXTENSION_RUNNING_TIME, QuotaRequest());
    host.Signal(SIGCONT);
    ExpectLogged({"Process  called GetExtensionRunningTime", "illegal access to this interface."});
}

}  // namespace KITE::Integration
