#include "kelvra_manager/client/subscriber_stub.h"

#include <string>
#include <utility>
#include <vector>

#include "base/event_names.h"
#include "kelvra_manager/protocol.h"
#include "runtime/event_file.h"
#include "runtime/platform_log.h"
#include "system_ability.h"
#include "task_runtime.h"
#include "treatments/treatments.h"

namespace KITE::Linux {

namespace {

void QueueReports(const std::vector<Kelvra::ProcessAnomalyInfo>& infos) {
    for (const Kelvra::ProcessAnomalyInfo& info : infos) {
        QueueEvent(EventName::kReport, {{"PID", info.pid},
                                        {"PROCESS_NAME", info.processName},
                                        {"UID", info.uid},
                                        {"RESOURCE_TYPE", info.resType},
                                        {"RULE_ID", info.id},
                                        {"RESOURCE", info.resource},
                                        {"DURATION", info.duration},
                                        {"ACTION", info.action},
                                        {"SEEN_NS", info.sampleTime}});
    }
}

}  // namespace

SubscriberStub::SubscriberStub() : IPCObjectStub(KelvraProtocol::kSubscriberDescriptor, true) {}

void SubscriberStub::SetSubscriber(std::weak_ptr<Kelvra::KelvraManagerTaskSubscriber> subscriber) {
    const std::lock_guard lock(mutex_);
    subscriber_ = std::move(subscriber);
}

int32_t SubscriberStub::OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                                        MessageOption& option) {
    if (!callers_.IsKelvraManager(code)) {
        return ERR_REFUSED;
    }
    if (code != KelvraProtocol::kReport) {
        return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
    }
    return TakeBatch(data);
}

int32_t SubscriberStub::TakeBatch(MessageParcel& data) {
    const auto infos = KelvraProtocol::ReadRecordList<Kelvra::ProcessAnomalyInfo>(data);
    if (!infos || infos->empty()) {
        PLATFORM_LOGE("a batch of anomaly reports is refused: %{public}s",
                      infos ? "it is empty" : infos.Why().Text().c_str());
        return KelvraProtocol::kBadReport;
    }
    std::unique_lock lock(mutex_);
    const auto subscriber = subscriber_.lock();
    lock.unlock();
    if (!subscriber) {
        return ERR_DEAD_OBJECT;
    }
    for (const Kelvra::ProcessAnomalyInfo& info : *infos) {
        // One that has gone is reported all the same: the service records it and then finds it gone.
        Treatments::Instance().Remember(info.pid, info.startTime, info.processName,
                                        {info.resType, info.id, info.resource, info.duration});
    }
    // Queued before the service can act, so that a report's event comes before the event of what was done
    // about it; written after the service has the reports, since its decision must not wait for a disk.
    QueueReports(*infos);
    subscriber->OnReportAbnormalProcess(*infos);
    SubmitTask(WriteQueuedEvents, {.name = "WriteQueuedEvents", .delay = {}});
    return ERR_NONE;
}

}  // namespace KITE::Linux
