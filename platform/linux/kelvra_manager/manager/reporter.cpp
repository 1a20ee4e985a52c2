#include "kelvra_manager/manager/reporter.h"

#include <algorithm>
#include <utility>

#include "kelvra_manager/record_list.h"
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

void Reporter::Send(const std::vector<Report>& reports) {
    Subscriber subscriber;
    {
        const std::lock_guard lock(mutex_);
        subscriber = subscriber_;
    }
    std::span<const Report> left(reports);
    while (subscriber && !left.empty()) {
        const size_t count = std::min(kMostRecordsOfBatch, left.size());
        SendBatch(subscriber, left.first(count));
        left = left.subspan(count);
    }
}

void Reporter::SendBatch(const Subscriber& subscriber, std::span<const Report> reports) {
    std::vector<ReportKey> keys;
    std::vector<Kelvra::ProcessAnomalyInfo> infos;
    for (const Report& report : reports) {
        keys.push_back(report.key);
        infos.push_back(report.info);
    }
    MessageParcel batch;
    if (!WriteRecordList(infos, batch)) {
        PLATFORM_LOGE("a batch of %{public}lu reports is dropped: it is too large for a message",
                      reports.size());
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        onTheWay_.insert(keys.begin(), keys.end());
    }
    (*subscriber)(batch, [weak = weak_from_this(), subscriber, keys = std::move(keys)](int32_t status) {
        if (const auto self = weak.lock()) {
            self->HandleAnswer(subscriber, keys, status);
        }
    });
}

void Reporter::HandleAnswer(const Subscriber& subscriber, const std::vector<ReportKey>& keys,
                            int32_t status) {
    if (status != ERR_NONE) {
        PLATFORM_LOGW("the subscriber did not take a batch of %{public}lu reports: status %{public}d",
                      keys.size(), status);
    }
    const std::lock_guard lock(mutex_);
    for (const ReportKey& key : keys) {
        onTheWay_.erase(key);
    }
    if (status == ERR_DEAD_OBJECT && subscriber == subscriber_) {
        subscriber_ = nullptr;
    }
}

bool Reporter::IsOnTheWay(const ReportKey& key) const {
    const std::lock_guard lock(mutex_);
    return onTheWay_.contains(key);
}

}  // namespace KITE::Linux::Sampling
