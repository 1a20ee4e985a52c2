#include "rqctl/watch/narrator.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "rqctl/output.h"
#include "shared/wording.h"

namespace KITE::Rqctl {

namespace {

using nlohmann::ordered_json;

struct Outcome {
    std::string_view name;
    const char* word;
    Tone tone;
};

constexpr std::array<Outcome, 6> kOutcomes{{
    {"SUPPRESS", "suppressed", Tone::kWarning},
    {"SUPPRESS_END", "let run", Tone::kGood},
    {"FREEZE", "frozen", Tone::kWarning},
    {"THAW", "thawed", Tone::kGood},
    {"KILL", "killed", Tone::kBad},
    {"RELEASE", "released", Tone::kGood},
}};

std::string TextAt(const ordered_json& event, const char* key) {
    const auto found = event.find(key);
    return found != event.end() && found->is_string() ? found->get<std::string>() : std::string();
}

int64_t NumberAt(const ordered_json& event, const char* key) {
    const auto found = event.find(key);
    return found != event.end() && found->is_number_integer() ? found->get<int64_t>() : 0;
}

void SayAt(int64_t time, Tone tone, const std::string& word, const std::string& rest) {
    constexpr size_t kWidth = 14;
    const std::string padding(kWidth - std::min(word.size(), kWidth), ' ');
    Say(Paint(Tone::kQuiet, MomentText(time)) + "  " + Paint(tone, word) + padding + "  " + rest);
}

std::string ProcessOf(const ordered_json& event) {
    return ProcessText(TextAt(event, "PROCESS_NAME"), NumberAt(event, "PID"));
}

const char* DryRunMark(const ordered_json& event) {
    return event.value("DRY_RUN", ordered_json()) == true ? "dry run, nothing is touched: " : "";
}

// What a report asks for, in words.
std::string RequestOf(const ordered_json& event) {
    if (TextAt(event, "RESOURCE_TYPE") == "cpu_ext") {
        return "treated in stages";
    }
    const std::string action = TextAt(event, "ACTION");
    return action == "warning" ? "a warning, nothing is done" : "action \"" + Escaped(action) + "\"";
}

bool MayLeadToAction(const ordered_json& event) {
    const std::string action = TextAt(event, "ACTION");
    return TextAt(event, "RESOURCE_TYPE") == "cpu_ext" || action == "freeze" || action == "kill";
}

}  // namespace

void Narrator::Tell(const ordered_json& event) {
    // Of events that are long past the clock does not tell what was a moment, they themselves do.
    const int64_t time = NumberAt(event, "time");
    if (time < 0 || time > kLatestMoment) {
        return;
    }
    while (!open_.empty() && open_.front().time + kMoment.count() < time) {
        TellNothingHappened(open_.front());
        open_.pop_front();
    }
    const std::string name = TextAt(event, "name");
    if (TextAt(event, "domain") != "KITE") {
        SayAt(time, Tone::kQuiet, "event",
              DryRunMark(event) + Escaped(name) + " of " + ProcessOf(event) + ": " +
                  Escaped(TextAt(event, "MSG")));
    } else if (name == "REPORT") {
        TellReport(event);
    } else {
        TellOutcome(event);
    }
}

void Narrator::TellReport(const ordered_json& event) {
    const int64_t time = NumberAt(event, "time");
    SayAt(time, Tone::kNotice, "report",
          ProcessOf(event) + " of uid " + std::to_string(NumberAt(event, "UID")) + ": " +
              MeasureText(TextAt(event, "RESOURCE_TYPE"), NumberAt(event, "RESOURCE"),
                          NumberAt(event, "DURATION")) +
              ", rule " + std::to_string(NumberAt(event, "RULE_ID")) + ", " + RequestOf(event));
    if (MayLeadToAction(event)) {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        const auto age = now - std::chrono::milliseconds(time);
        open_.push_back({time, NumberAt(event, "PID"), TextAt(event, "PROCESS_NAME"),
                         Clock::now() + kMoment - std::clamp<std::chrono::nanoseconds>(age, {}, kMoment)});
    }
}

void Narrator::TellOutcome(const ordered_json& event) {
    const std::string name = TextAt(event, "name");
    const auto known = std::ranges::find(kOutcomes, name, &Outcome::name);
    const bool isKnown = known != kOutcomes.end();
    const int64_t error = NumberAt(event, "RESULT");
    std::string line = DryRunMark(event) + (isKnown ? "" : Escaped(name) + " of ") + ProcessOf(event);
    if (error != 0) {
        const char* text = strerrordesc_np(static_cast<int>(error));
        line += std::string(": ") + (text == nullptr ? "unknown error" : text);
    }
    if (const std::string form = TextAt(event, "FORM"); !form.empty()) {
        line += ", by " + Escaped(form);
    }
    if (const std::string reason = TextAt(event, "REASON"); !reason.empty()) {
        line += ", " + Escaped(reason);
    }
    if (event.contains("BY_UID")) {
        line += " by uid " + std::to_string(NumberAt(event, "BY_UID"));
    }
    SayAt(NumberAt(event, "time"),
          error != 0 ? Tone::kBad
          : isKnown  ? known->tone
                     : Tone::kPlain,
          std::string(error != 0 ? "not " : "") + (isKnown ? known->word : "event"), line);
    open_.remove_if([&](const Open& report) {
        return report.pid == NumberAt(event, "PID") && report.name == TextAt(event, "PROCESS_NAME");
    });
}

std::optional<std::chrono::milliseconds> Narrator::TellOfSilence() {
    const Clock::time_point now = Clock::now();
    while (!open_.empty() && open_.front().end <= now) {
        TellNothingHappened(open_.front());
        open_.pop_front();
    }
    return open_.empty()
               ? std::nullopt
               : std::optional(std::chrono::ceil<std::chrono::milliseconds>(open_.front().end - now));
}

void Narrator::TellNothingHappened(const Open& report) {
    SayAt(report.time + kMoment.count(), Tone::kQuiet, "no action",
          ProcessText(report.name, report.pid) +
              " since its report: exempt, or the rule's condition did not hold, or no longer the reported "
              "process");
}

}  // namespace KITE::Rqctl
