#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "ipc/handles.h"
#include "ipc/wire.h"
#include "iresource_quota_control.h"
#include "kelvra_manager_client.h"
#include "private_system/private_system.h"
#include "process.h"

namespace KITE::Integration {

inline constexpr uid_t kTrustedUid = 0;  // of the native process "svcdb", with the dump permission
inline constexpr uid_t kUntrustedUid = 20001;
using Tools::kKelvraUid;
using Tools::kQuotaUid;

inline const std::string kQuotaName = Linux::AbilityBusName(Linux::kQuotaServiceId);
inline const std::string kQuotaPath = Linux::AbilityPath(Linux::kQuotaServiceId);
inline const std::string kKelvraName = Linux::AbilityBusName(KELVRA_MANAGER_SERVICE_ID);
inline const std::string kKelvraPath = Linux::AbilityPath(KELVRA_MANAGER_SERVICE_ID);

// What came of a call: the bus's or the library's error, or the status and the reply.
struct Answer {
    std::string error;
    int32_t status = 0;
    MessageParcel reply;
};

// A connection under a user of its own: the bus vouches for the one under which the thread connected. Belongs
// to one thread.
class BusClient {
  public:
    BusClient(const std::string& address, uid_t uid);

    sd_bus* Bus() const { return bus_.get(); }
    Answer Transact(const std::string& name, const std::string& path, uint32_t code,
                    const MessageParcel& request);
    // Of the quota service.
    Answer Dump(const std::string& argument, int fd);
    // Sends a request to the quota service and leaves it at that.
    void Send(uint32_t code, const MessageParcel& request);
    // Takes the bus name of an ability, and gives it back. False when the bus refuses.
    bool Claim(int32_t abilityId, uint64_t flags = 0) {
        return sd_bus_request_name(bus_.get(), Linux::AbilityBusName(abilityId).c_str(), flags) >= 0;
    }
    void Release(int32_t abilityId) {
        sd_bus_release_name(bus_.get(), Linux::AbilityBusName(abilityId).c_str());
    }

    // The service's two queries. The first takes at least one pid.
    Answer AskWrittenBytes(const std::vector<int32_t>& pids);
    Answer AskRunningTimes();

  private:
    Linux::MessageHandle NewCall(const std::string& name, const std::string& path, const char* member) const;
    Linux::MessageHandle NewTransaction(const std::string& name, const std::string& path, uint32_t code,
                                        const MessageParcel& request) const;
    Answer Call(const Linux::MessageHandle& call);

    Linux::BusHandle bus_;
};

// With these pids, if there are any.
MessageParcel QuotaRequest(const std::vector<int32_t>& pids = {});
// The vector of a reply to AskWrittenBytes; a single 7 when there is none.
std::vector<uint64_t> WrittenBytesOf(Answer answer);

// A report of a process as it is now, by the untrusted user.
Kelvra::ProcessAnomalyInfo Anomaly(const Process& process, const std::string& resourceType,
                                   const std::string& action);
MessageParcel ReportOf(const std::vector<Kelvra::ProcessAnomalyInfo>& batch);

// A Kelvra manager that reports what a test tells it. Served only while one of its operations runs.
class FakeManager {
  public:
    explicit FakeManager(const std::string& address);

    void Leave() { client_.Release(KELVRA_MANAGER_SERVICE_ID); }
    void Return() { client_.Claim(KELVRA_MANAGER_SERVICE_ID); }
    // Serves until the quota service has subscribed and sent its quotas (again).
    bool AwaitSubscription(milliseconds limit = kPatience);
    const std::string& Subscriber() const { return subscriber_; }
    // The subscriber's status, once it has taken the batch.
    int32_t Report(const std::vector<Kelvra::ProcessAnomalyInfo>& batch);

  private:
    static int OnTransact(sd_bus_message* message, void* manager, sd_bus_error* error);
    void Take(uint32_t code, MessageParcel request, const char* sender);

    BusClient client_;
    Linux::SlotHandle object_;
    std::string subscriber_;
    bool hasSubscribed_ = false;
    bool hasQuotas_ = false;
};

}  // namespace KITE::Integration
