#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <thread>

#include "kelvra_manager/manager/process_table.h"
#include "kelvra_manager/manager/reporter.h"

namespace KITE::Linux::Sampling {

// The place on the grid of sample times, one period apart, that the moment `now` belongs to: the last one not
// after it, and at least one after `last`. A sample that comes late takes the place that it came to, so that
// places differ by whole periods and durations are met exactly.
TimePoint NextSampleTime(TimePoint last, TimePoint now, std::chrono::milliseconds period);

// Samples on a thread of its own while there are quotas and a subscriber, waking once per period; sleeps
// otherwise. After such a sleep all windows start anew. Any thread.
class Sampler {
  public:
    // Samples are recorded where there is a recorder.
    Sampler(std::chrono::milliseconds period, size_t mostWatched, std::shared_ptr<Reporter> reporter,
            std::unique_ptr<SampleRecorder> recorder = nullptr);
    Sampler(const Sampler&) = delete;
    Sampler& operator=(const Sampler&) = delete;
    ~Sampler() { Stop(); }

    // Starts the thread, once at most, and joins it. Of the owner.
    void Start();
    void Stop();

    // Replaces all quotas.
    void SetQuotas(const std::vector<Kelvra::ResQuotaInfo>& quotas);
    // Replaces the reporter's subscriber.
    void SetSubscriber(Reporter::Deliver deliver);

  private:
    void Run();
    bool HasWork() const { return !stopping_ && !book_->IsEmpty() && reporter_->HasSubscriber(); }

    const std::chrono::milliseconds period_;
    const size_t mostWatched_;
    const std::shared_ptr<Reporter> reporter_;
    const std::unique_ptr<SampleRecorder> recorder_;  // the sampling thread's
    std::mutex mutex_;  // of the members below; never held while sampling or sending
    std::condition_variable changed_;
    std::shared_ptr<const RuleBook> book_ = std::make_shared<RuleBook>();
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace KITE::Linux::Sampling
