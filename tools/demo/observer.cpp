#include "demo/observer.h"

#include <dirent.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <iterator>
#include <limits>
#include <sstream>
#include <string_view>

namespace KITE::Demo {

namespace {

constexpr int64_t kMiB = int64_t{1} << 20;
// Below the first a process that wants to run is held to be suppressed, above the second it is not any more.
constexpr int64_t kSuppressedPercent = 5;
constexpr int64_t kResumedPercent = 20;
// The least CPU time of both competitors together that tells something.
constexpr int64_t kTellingNs = 40'000'000;
// More CPU time than this is progress. The kernel charges a frozen process some microseconds when it is moved
// to another control group; the laziest of the programs uses 3 ms in 100 ms.
constexpr int64_t kProgressNs = 1'000'000;
// A machine that does other work may keep a process waiting.
constexpr milliseconds kBearablePause{3000};

std::string ReadText(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

int64_t NumberAfter(const std::string& text, std::string_view label) {
    const size_t at = text.find(label);
    return at == std::string::npos ? 0 : std::strtoll(text.c_str() + at + label.size(), nullptr, 10);
}

int64_t CpuTimeOf(pid_t pid) {
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &time) != 0) {
        return 0;
    }
    return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

// The fields of /proc/PID/stat from the third, the state, on. The second is a name in brackets, which may
// hold brackets itself.
std::vector<std::string> StatFields(pid_t pid) {
    const std::string text = ReadText("/proc/" + std::to_string(pid) + "/stat");
    const size_t bracket = text.rfind(')');
    std::istringstream rest(bracket == std::string::npos ? "" : text.substr(bracket + 1));
    return {std::istream_iterator<std::string>(rest), {}};
}

bool WantsToRun(char state) {
    return state == 'R' || state == 'D';
}

int64_t Percent(int64_t nanoseconds, Clock::duration time) {
    const int64_t whole = std::chrono::nanoseconds(time).count();
    return whole <= 0 ? 0 : nanoseconds * 100 / whole;
}

std::string Seconds(Clock::duration time) {
    const int64_t tenths = std::chrono::duration_cast<milliseconds>(time).count() / 100;
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
}

int64_t ValueOf(Measure measure, const ProcReading& reading) {
    switch (measure) {
        case Measure::kCpu:
            return reading.cpuNs;
        case Measure::kWrites:
            return reading.writtenBytes;
        case Measure::kMemory:
            break;
    }
    return reading.residentBytes;
}

bool Contains(const std::vector<Happening>& history, Happening happening) {
    return std::ranges::find(history, happening) != history.end();
}

}  // namespace

std::optional<ProcReading> ReadProc(pid_t pid) {
    constexpr size_t kStateField = 0;
    constexpr size_t kResidentField = 21;
    constexpr size_t kPolicyField = 38;
    const std::vector<std::string> stat = StatFields(pid);
    if (stat.size() <= kPolicyField || stat[kStateField] == "Z" || stat[kStateField] == "X") {
        return std::nullopt;
    }
    const std::string directory = "/proc/" + std::to_string(pid);
    ProcReading reading;
    reading.state = stat[kStateField].front();
    reading.isIdlePolicy = stat[kPolicyField] == std::to_string(SCHED_IDLE);
    reading.cpuNs = CpuTimeOf(pid);
    reading.writtenBytes = NumberAfter(ReadText(directory + "/io"), "\nwrite_bytes:");
    reading.residentBytes = std::strtoll(stat[kResidentField].c_str(), nullptr, 10) * sysconf(_SC_PAGESIZE);
    reading.groups = ReadText(directory + "/cgroup");
    return reading;
}

std::string HappeningText(Happening happening) {
    switch (happening) {
        case Happening::kSuppressed:
            return "suppressed";
        case Happening::kResumed:
            return "let run";
        case Happening::kFrozen:
            return "frozen";
        case Happening::kThawed:
            return "thawed";
        case Happening::kMoved:
            return "regrouped";
        case Happening::kKilled:
            return "killed";
        case Happening::kEnded:
            break;
    }
    return "ended";
}

Observer::Observer(const Program& program, Child& child) : program_(program), child_(child) {}

void Observer::Note(std::vector<Sighting>& sightings, Happening happening, std::string detail) {
    history_.push_back(happening);
    sightings.push_back({happening, std::move(detail)});
}

std::vector<Sighting> Observer::Look(Clock::time_point now) {
    std::vector<Sighting> sightings;
    if (hasEnded_) {
        return sightings;
    }
    if (child_.HasEnded()) {
        LookAtEnd(sightings);
        return sightings;
    }
    const std::optional<ProcReading> reading = ReadProc(Pid());
    if (!reading) {
        return sightings;  // about to end
    }
    if (!last_) {
        home_ = reading->groups;
        stillSince_ = progressAt_ = now;
        cpuNsSeen_ = reading->cpuNs;
    } else {
        LookAtProgress(*reading, now, sightings);
    }
    TakeMeasure(*reading, now);
    last_ = reading;
    return sightings;
}

void Observer::LookAtEnd(std::vector<Sighting>& sightings) {
    hasEnded_ = true;
    const Ending& ending = child_.AwaitEnd();
    Note(sightings, ending.IsKill() ? Happening::kKilled : Happening::kEnded,
         ending.IsKill() ? "by SIGKILL, " + Total() : ending.Text());
}

void Observer::LookAtProgress(const ProcReading& reading, Clock::time_point now,
                              std::vector<Sighting>& sightings) {
    const bool isMoved = reading.groups != home_ || reading.isIdlePolicy;
    if (isMoved && !Contains(history_, Happening::kMoved)) {
        history_.push_back(Happening::kMoved);
    }
    const bool hasProgress = reading.cpuNs - cpuNsSeen_ > kProgressNs;
    longestPause_ = std::max(longestPause_, std::chrono::duration_cast<milliseconds>(now - progressAt_));
    if (hasProgress && isFrozen_) {
        isFrozen_ = false;
        Note(sightings, Happening::kThawed, "runs again, after " + Seconds(now - stillSince_));
    }
    if (hasProgress) {
        progressAt_ = now;
        cpuNsSeen_ = reading.cpuNs;
    }
    if (hasProgress || (!isFrozen_ && WantsToRun(reading.state))) {
        stillSince_ = now;
    }
    if (!isFrozen_ && now - stillSince_ >= kStandstill) {
        isFrozen_ = true;
        Note(sightings, Happening::kFrozen,
             "no CPU time for " + std::to_string(kStandstill.count()) + " ms, state " + reading.state);
    }
}

void Observer::TakeMeasure(const ProcReading& reading, Clock::time_point now) {
    lastSecond_.push_back({now, ValueOf(program_.measure, reading)});
    while (lastSecond_.size() > 2 && now - lastSecond_[1].at >= std::chrono::seconds(1)) {
        lastSecond_.pop_front();
    }
    const Point& first = lastSecond_.front();
    const Clock::duration time = now - first.at;
    if (program_.measure == Measure::kMemory) {
        current_ = reading.residentBytes / kMiB;
    } else if (time < std::chrono::seconds(1)) {
        return;
    } else {
        const int64_t growth = lastSecond_.back().value - first.value;
        const int64_t perMille = std::chrono::duration_cast<milliseconds>(time).count();
        current_ =
            program_.measure == Measure::kCpu ? Percent(growth, time) : growth * 1000 / perMille / kMiB;
    }
    peak_ = std::max(peak_, current_);
}

std::string Observer::Total() const {
    if (!last_) {
        return "before it did anything";
    }
    switch (program_.measure) {
        case Measure::kCpu:
            return "after " + Seconds(std::chrono::nanoseconds(last_->cpuNs)) + " of CPU time";
        case Measure::kWrites:
            return "after writing " + std::to_string(last_->writtenBytes / kMiB) + " MiB";
        case Measure::kMemory:
            break;
    }
    return "with " + std::to_string(peak_) + " MiB";
}

void Observer::BeginCompetition(pid_t competitor) {
    competition_ = CpuTimes{CpuTimeOf(Pid()), CpuTimeOf(competitor)};
}

// Shares of what the two got together: what others on the machine take does not matter.
std::vector<Sighting> Observer::EndCompetition(pid_t competitor) {
    std::vector<Sighting> sightings;
    const std::optional<ProcReading> reading = ReadProc(Pid());
    if (!competition_ || !reading || hasEnded_) {
        return sightings;
    }
    const int64_t own = reading->cpuNs - competition_->own;
    const int64_t both = own + CpuTimeOf(competitor) - competition_->competitor;
    competition_.reset();
    // Too little tells nothing, nor does a process that does not want to run, being frozen.
    if (both < kTellingNs || reading->state != 'R') {
        return sightings;
    }
    const int64_t share = own * 100 / both;
    if (!isSuppressed_ && share <= kSuppressedPercent) {
        isSuppressed_ = true;
        Note(sightings, Happening::kSuppressed,
             "gets " + std::to_string(share) + " % beside a competitor, " + std::to_string(shareBefore_) +
                 " % before");
    } else if (isSuppressed_ && share >= kResumedPercent) {
        isSuppressed_ = false;
        Note(sightings, Happening::kResumed, "gets " + std::to_string(share) + " % beside a competitor");
    }
    shareBefore_ = share;
    return sightings;
}

bool Observer::IsAsAtStart() const {
    const std::optional<ProcReading> reading = hasEnded_ ? std::nullopt : ReadProc(Pid());
    return !reading || (reading->groups == home_ && !reading->isIdlePolicy);
}

bool Observer::IsFateReached() const {
    switch (program_.fate) {
        case Fate::kStages:
        case Fate::kKilled:
            return hasEnded_;
        case Fate::kFrozen:
            return hasEnded_ || Contains(history_, Happening::kFrozen);
        case Fate::kUntouched:
            break;
    }
    return true;
}

namespace {

std::string ShortcomingOfStages(const std::vector<Happening>& history) {
    const auto suppressed = std::ranges::find(history, Happening::kSuppressed);
    const auto frozen = std::find(suppressed, history.end(), Happening::kFrozen);
    const auto killed = std::find(frozen, history.end(), Happening::kKilled);
    if (suppressed == history.end()) {
        return "was never suppressed";
    }
    if (frozen == history.end()) {
        return "was not frozen after it was suppressed";
    }
    return killed == history.end() ? "was not killed after it was frozen" : "";
}

std::string ShortcomingOfUntouched(const Observer& observer) {
    const std::vector<Happening>& history = observer.History();
    if (!history.empty()) {
        return "was " + HappeningText(history.front());
    }
    if (observer.LongestPause() > kBearablePause) {
        return "stood still for " + Seconds(observer.LongestPause());
    }
    return observer.Peak() < observer.Of().leastPeak
               ? "was never above its quota, so nothing is shown: " +
                     MeasureText(observer.Of().measure, observer.Peak()) + " at most"
               : "";
}

}  // namespace

std::string Shortcoming(const Observer& observer) {
    std::vector<Happening> history = observer.History();
    if (observer.Of().fate == Fate::kUntouched) {
        return ShortcomingOfUntouched(observer);
    }
    std::erase(history, Happening::kMoved);
    if (observer.Of().fate == Fate::kStages) {
        return ShortcomingOfStages(history);
    }
    const std::vector<Happening> expected = observer.Of().fate == Fate::kKilled
                                                ? std::vector{Happening::kKilled}
                                                : std::vector{Happening::kFrozen, Happening::kThawed};
    if (history == expected) {
        return "";
    }
    return history.empty() ? "nothing happened to it" : "not what was expected";
}

}  // namespace KITE::Demo
