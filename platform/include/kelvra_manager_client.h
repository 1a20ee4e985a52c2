#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "parcel.h"

namespace KITE::Kelvra {

// One quota of one process, as the Kelvra manager takes it.
struct KITE_API ResQuotaInfo : Parcelable {
    int64_t duration = 0;     // observation period; the unit is the resource type's
    int64_t resource = 0;     // the limit; the unit is the resource type's
    int32_t id = 0;           // the rule's identifier
    int32_t processType = 0;  // general type times 1000, plus a subtype
    std::string action;
    std::string processName;
    std::string resType;
    std::vector<uint32_t> conditions;

    bool Marshalling(Parcel& parcel) const override;
    bool ReadFromParcel(Parcel& parcel) override;
};

// One process that broke one of its quotas.
struct KITE_API ProcessAnomalyInfo : Parcelable {
    int64_t duration = 0;  // of the quota
    int64_t resource = 0;  // the measured value
    int32_t uid = 0;
    int32_t pid = 0;
    int32_t id = 0;           // of the quota
    int32_t processType = 0;  // general type times 1000, plus a subtype
    std::string action;       // of the quota
    std::string resType;
    std::string processName;
    std::vector<uint32_t> conditions;  // of the quota

    // For the platform's own use, carried along unread: when the process started, in clock ticks since boot,
    // and when the breach was seen, in nanoseconds of the monotonic clock. 0 where not known.
    int64_t startTime = 0;
    int64_t sampleTime = 0;

    bool Marshalling(Parcel& parcel) const override;
    bool ReadFromParcel(Parcel& parcel) override;
};

// Receives anomaly reports. Must be owned by a shared pointer: the client keeps a weak one and locks it for
// each call, so that a destroyed subscriber is never called.
class KITE_API KelvraManagerTaskSubscriber
    : public std::enable_shared_from_this<KelvraManagerTaskSubscriber> {
  public:
    virtual ~KelvraManagerTaskSubscriber() = default;

    // A batch of reports, at least one. Called on an IPC thread, which waits for nothing else meanwhile: hand
    // the batch over and return.
    virtual void OnReportAbnormalProcess(const std::vector<ProcessAnomalyInfo>& infos) = 0;
};

// The client side of the Kelvra manager, service 1213. Any thread but the one that serves requests; each call
// waits for the manager's answer.
class KITE_API KelvraManagerClient {
  public:
    static KelvraManagerClient& GetInstance();

    // Replaces all quotas by the list; the first argument is always 0. 0 on success; not 0 when the manager
    // is not there, refuses the caller or the list, or the list is too large for one message.
    int32_t SetProcessQuota(int32_t reserved, std::vector<ResQuotaInfo>& quotas);
    // Asks for reports to the subscriber until it is destroyed or the manager goes away; a later subscription
    // replaces an earlier one. The manager may report before the call returns. 0 on success.
    int32_t SubscribeKelvraTask(const KelvraManagerTaskSubscriber& subscriber);
};

}  // namespace KITE::Kelvra
