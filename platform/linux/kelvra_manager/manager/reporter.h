#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <span>
#include <vector>

#include "kelvra_manager/manager/report.h"

namespace KITE::Linux::Sampling {

// Carries reports to the subscriber. Must be owned by a shared pointer: answers come whenever they come. Any
// thread.
class Reporter : public std::enable_shared_from_this<Reporter> {
  public:
    // Hands a marshalled batch to the subscriber without waiting, and calls `answered` exactly once, on any
    // thread, with the call's status.
    using Deliver = std::function<void(const MessageParcel& batch, std::function<void(int32_t)> answered)>;

    static constexpr size_t kMostRecordsOfBatch = 1000;

    // Replaces the subscriber. It stays until a delivery says that it is dead.
    void SetSubscriber(Deliver deliver);
    bool HasSubscriber() const;

    // Sends the reports, in batches of bounded size. Without a subscriber they are dropped.
    void Send(const std::vector<Report>& reports);
    // Whether a report of that kind was sent and is not answered yet.
    bool IsOnTheWay(const ReportKey& key) const;

  private:
    using Subscriber = std::shared_ptr<const Deliver>;

    void SendBatch(const Subscriber& subscriber, std::span<const Report> reports);
    void HandleAnswer(const Subscriber& subscriber, const std::vector<ReportKey>& keys, int32_t status);

    mutable std::mutex mutex_;  // of the two below; never held across a delivery
    Subscriber subscriber_;
    std::set<ReportKey> onTheWay_;
};

}  // namespace KITE::Linux::Sampling
