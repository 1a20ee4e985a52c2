#include "kelvra_manager/manager/sampler.h"

#include <algorithm>
#include <utility>

#include "runtime/guard.h"

namespace KITE::Linux::Sampling {

TimePoint NextSampleTime(TimePoint last, TimePoint now, std::chrono::milliseconds period) {
    return last + period * std::max<int64_t>(1, (now - last) / period);
}

Sampler::Sampler(std::chrono::milliseconds period, size_t mostWatched, std::shared_ptr<Reporter> reporter,
                 std::unique_ptr<SampleRecorder> recorder)
    : period_(period),
      mostWatched_(mostWatched),
      reporter_(std::move(reporter)),
      recorder_(std::move(recorder)) {}

void Sampler::Start() {
    thread_ = std::thread(&Sampler::Run, this);
}

void Sampler::Stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Sampler::SetQuotas(const std::vector<Kelvra::ResQuotaInfo>& quotas) {
    auto book = std::make_shared<const RuleBook>(quotas);
    {
        const std::lock_guard lock(mutex_);
        book_.swap(book);
    }
    changed_.notify_all();
}

void Sampler::SetSubscriber(Reporter::Deliver deliver) {
    {
        // The sampling thread holds the mutex from its look for a subscriber until it waits. So it does not
        // miss the notice.
        const std::lock_guard lock(mutex_);
        reporter_->SetSubscriber(std::move(deliver));
    }
    changed_.notify_all();
}

void Sampler::Run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        changed_.wait(lock, [this] { return stopping_ || HasWork(); });
        ProcessTable table(mostWatched_, recorder_.get());
        TimePoint at = Clock::now();
        while (HasWork()) {
            const std::shared_ptr<const RuleBook> book = book_;
            lock.unlock();
            RunGuarded("a sample", [&] {
                table.UseRules(book);
                reporter_->Send(table.Sample(at, *reporter_));
                if (recorder_) {
                    recorder_->Write();
                }
            });
            lock.lock();
            changed_.wait_until(lock, at + period_, [this] { return !HasWork(); });
            at = NextSampleTime(at, Clock::now(), period_);
        }
    }
}

}  // namespace KITE::Linux::Sampling
