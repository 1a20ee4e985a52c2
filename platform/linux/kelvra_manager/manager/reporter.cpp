#include "kelvra_manager/manager/reporter.h"

#include <algorithm>
#include <utility>

#include "kelvra_manager/protocol.h"
#include "remote_object.h"
#include "runtime/platform_log.h"

namespace KITE::Linux::Sampling {

void Reporter::SetSubscriber(Deliver deliver) {
    const std::lock_guard lock(mutex_);
    subscriber_ = std::make_shared<const Deliver>(std::move(deliver));
}

bool Reporter::HasSubscriber() const {
    const std::lock_guard lock(mutex_);
    return subscriber_ != nullptr;
}

void Reporter::Send(std::span<const Report> reports) {
    std::unique_lock lock(mutex_);
    const Subscriber subscriber = subscriber_;
    lock.unlock();
    while (subscriber && !reports.empty()) {
        const size_t count = std::min(kMostRecordsOfBatch, reports.size());
        SendBatch(subscriber, reports.first(count));
        reports = reports.subspan(count);
    }
}

void Reporter::SendBatch(const Subscriber& subscriber, std::span<const Report> reports) {
    MessageParcel batch;
    if (!KelvraProtocol::WriteRecordList(reports, batch)) {
        PLATFORM_LOGE("a batch of %{public}lu reports is dropped: it is too large for a message",
                      reports.size());
        return;
    }
    Keys keys;
    for (const Report& report : reports) {
        keys.emplace(report.pid, report.startTime, report.resType);
    }
    {
        const std::lock_guard lock(mutex_);
        onTheWay_.insert(keys.begin(), keys.end());
    }
    (*subscriber)(batch, [weak = weak_from_this(), subscriber, keys](int32_t status) {
        if (const auto self = weak.lock()) {
            self->HandleAnswer(subscriber, keys, status);
        }
    });
}

void Reporter::HandleAnswer(const Subscriber& subscriber, const Keys& keys, int32_t status) {
    if (status != ERR_NONE) {
        PLATFORM_LOGW("the subscriber did not take a batch of %{public}lu reports: status %{public}d",
                      keys.size(), status);
    }
    const std::lock_guard lock(mutex_);
    std::erase_if(onTheWay_, [&](const auto& key) { return keys.contains(key); });
    if (status == ERR_DEAD_OBJECT && subscriber == subscriber_) {
        subscriber_ = nullptr;
    }
}

bool Reporter::IsOnTheWay(pid_t pid, int64_t startTime, std::string_view resourceType) const {
    const std::lock_guard lock(mutex_);
    return onTheWay_.contains({pid, startTime, std::string(resourceType)});
}

}  // namespace KITE::Linux::Sampling
