#include "rqctl/watch/narrator.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "base/event_names.h"
#include "base/resource_types.h"
#include "base/result.h"
#include "rqctl/treatment_kinds.h"
#include "shared/wording.h"

namespace KITE::Rqctl {

using namespace Tools;
using std::chrono::milliseconds;

namespace {

void SayAt(int64_t time, Tone tone, std::string_view word, std::string_view rest) {
    Say(fmt::format("{}  {}  {}", Paint(Tone::kQuiet, MomentText(time)),
                    Paint(tone, fmt::format("{:<14}", word)), rest));
}

std::string ProcessOf(const Event& event) {
    return (event.isDryRun ? "dry run, nothing is done: " : "") + ProcessText(event.processName, event.pid);
}

std::string RequestOf(const Event& report) {
    if (Linux::IsStaged(report.resourceType)) {
        return "treated in stages";
    }
    return report.action == "warning" ? "a warning, nothing is done"
                                      : fmt::format("action \"{}\"", Escaped(report.action));
}

// What a treatment's event tells beyond its process.
std::string DetailOf(const Event& event) {
    std::string detail;
    if (event.result != 0) {
        detail += ": " + Linux::ErrorOf(static_cast<int>(event.result)).message();
    }
    if (!event.form.empty()) {
        detail += ", by " + Escaped(event.form);
    }
    if (!event.reason.empty()) {
        detail += ", " + Escaped(event.reason);
    }
    if (event.byUid) {
        detail += fmt::format(" by uid {}", *event.byUid);
    }
    return detail;
}

}  // namespace

void Narrator::Tell(const Event& event) {
    TellOfSilenceUntil(event.time);
    if (event.domain != Linux::EventName::kDomain) {
        SayAt(event.time, Tone::kQuiet, "event",
              fmt::format("{} of {}: {}", Escaped(event.name), ProcessOf(event), Escaped(event.message)));
    } else if (event.Is(Linux::EventName::kReport)) {
        TellReport(event);
    } else {
        TellTreatment(event);
    }
}

void Narrator::TellReport(const Event& event) {
    SayAt(event.time, Tone::kNotice, "report",
          fmt::format("{} of uid {}: {}, rule {}, {}", ProcessText(event.processName, event.pid), event.uid,
                      MeasureText(event.resourceType, event.resource, event.duration), event.ruleId,
                      RequestOf(event)));
    if (Linux::IsStaged(event.resourceType) || event.action == "freeze" || event.action == "kill") {
        open_.push_back(event);
    }
}

void Narrator::TellTreatment(const Event& event) {
    const TreatmentKind* treatment = FindTreatmentKind(event);
    const std::string text = ProcessOf(event) + DetailOf(event);
    if (treatment == nullptr) {
        SayAt(event.time, Tone::kPlain, "event", Escaped(event.name) + " of " + text);
    } else if (event.result != 0) {
        SayAt(event.time, Tone::kBad, fmt::format("not {}", treatment->word), text);
    } else {
        SayAt(event.time, treatment->tone, treatment->word, text);
    }
    open_.remove_if([&](const Event& report) {
        return report.pid == event.pid && report.processName == event.processName;
    });
}

std::optional<milliseconds> Narrator::TellOfSilence() {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    const int64_t now = std::chrono::duration_cast<milliseconds>(sinceEpoch).count();
    // Where the clock has been set back, the patience begins anew.
    for (Event& report : open_) {
        report.time = std::min(report.time, now);
    }
    TellOfSilenceUntil(now);
    return open_.empty()
               ? std::nullopt
               : std::optional(std::min(kPatience, milliseconds(open_.front().time - now) + kPatience));
}

void Narrator::TellOfSilenceUntil(int64_t time) {
    for (; !open_.empty() && open_.front().time + kPatience.count() < time; open_.pop_front()) {
        const Event& report = open_.front();
        SayAt(report.time + kPatience.count(), Tone::kQuiet, "no action",
              fmt::format("{} since its report: it is exempt, the rule's condition did not hold, or the pid "
                          "is another process's by now",
                          ProcessText(report.processName, report.pid)));
    }
}

}  // namespace KITE::Rqctl
