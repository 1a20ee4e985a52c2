#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "ipc/handles.h"
#include "iresource_quota_control.h"
#include "kelvra_manager_client.h"
#include "private_system/private_system.h"
#include "process.h"

namespace KITE::Integration {

inline constexpr uid_t kTrustedUid = 0;  // of the native process "svcdb", with the dump permission
inline constexpr uid_t kUntrustedUid = 20001;
using Tools::kKelvraUid;
using Tools::kQuotaUid;

using Tools::kKelvraName;
using Tools::kQuotaName;
inline constexpr const char* kQuotaPath = "/kite/ability/SA1913";
inline constexpr const char* kKelvraPath = "/kite/ability/SA1213";

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
    Answer Dump(const std::vector<std::string>& arguments, int fd);
    // Sends a request to the quota service and leaves it at that.
    void Send(uint32_t code, const MessageParcel& request);
    // The bus's error, empty when the name is this client's now.
    std::string Claim(const std::string& name);
    void GiveBack(const std::string& name) { sd_bus_release_name(bus_.get(), name.c_str()); }

    // The service's two queries.
    Answer AskWrittenBytes(const std::vector<int32_t>& pids);
    Answer AskRunningTimes();

  private:
    Linux::MessageHandle NewCall(const std::string& name, const std::string& path, const char* member);
    Linux::MessageHandle NewTransaction(const std::string& name, const std::string& path, uint32_t code,
                                        const MessageParcel& request);
    Linux::MessageHandle Call(sd_bus_message* call, Answer& answer);

    Linux::BusHandle bus_;
};

MessageParcel QuotaRequest();
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

    void Leave() { client_.GiveBack(kKelvraName); }
    void Return() { client_.Claim(kKelvraName); }
    // Serves until the quota service has subscribed and sent its quotas (again).
    bool AwaitSubscription(milliseconds limit = kPatience);
    const std::vector<Kelvra::ResQuotaInfo>& Quotas() const { return quotas_; }
    const std::string& Subscriber() const { return subscriber_; }
    // The subscriber's status, once it has taken the batch.
    int32_t Report(const std::vector<Kelvra::ProcessAnomalyInfo>& batch) { return Report(ReportOf(batch)); }
    int32_t Report(const MessageParcel& batch);

  private:
    static int OnTransact(sd_bus_message* message, void* manager, sd_bus_error* error);
    void Take(uint32_t code, MessageParcel request, const char* sender);

    BusClient client_;
    Linux::SlotHandle object_;
    std::string subscriber_;
    std::vector<Kelvra::ResQuotaInfo> quotas_;
    bool hasSubscribed_ = false;
    bool hasQuotas_ = false;
};

}  // namespace KITE::Integration
