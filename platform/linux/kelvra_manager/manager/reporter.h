#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <tuple>

#include "kelvra_manager_client.h"

namespace KITE::Linux::Sampling {

using Report = Kelvra::ProcessAnomalyInfo;

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
    void Send(std::span<const Report> reports);
    // Whether a report of that process and resource type was sent and is not answered yet.
    bool IsOnTheWay(pid_t pid, int64_t startTime, std::string_view resourceType) const;

  private:
    using Subscriber = std::shared_ptr<const Deliver>;
    using Keys = std::set<std::tuple<pid_t, int64_t, std::string>>;  // start time, resource type

    void SendBatch(const Subscriber& subscriber, std::span<const Report> reports);
    void HandleAnswer(const Subscriber& subscriber, const Keys& keys, int32_t status);

    mutable std::mutex mutex_;  // of the two below; never held across a delivery
    Subscriber subscriber_;
    Keys onTheWay_;
};

}  // namespace KITE::Linux::Sampling
