#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "base/event_names.h"
#include "shared/event.h"
#include "shared/terminal.h"

// What can be done to a process, and how rqctl tells and shows it.
namespace KITE::Rqctl {

// What lasts until another treatment ends it. Bits.
enum Lasting : uint8_t { kSuppressed = 1, kFrozen = 2 };

struct TreatmentKind {
    std::string_view event;   // the name of its event
    std::string_view word;    // "frozen"
    Tools::Tone tone;         // of the word
    std::string_view letter;  // of its mark in a figure
    std::string_view style;   // of the mark: a class of plot's style sheet
    uint32_t begins;          // what it begins, and what it ends if that was there
    uint32_t ends;
};

// clang-format off
inline constexpr TreatmentKind kTreatmentKinds[] = {
    {Linux::EventName::kSuppress,    "suppressed", Tools::Tone::kWarning, "S", "suppress", kSuppressed, kSuppressed},
    {Linux::EventName::kSuppressEnd, "let run",    Tools::Tone::kGood,    "E", "end",      0, kSuppressed},
    {Linux::EventName::kFreeze,      "frozen",     Tools::Tone::kWarning, "F", "freeze",   kFrozen, kFrozen},
    {Linux::EventName::kThaw,        "thawed",     Tools::Tone::kGood,    "T", "end",      0, kFrozen},
    {Linux::EventName::kKill,        "killed",     Tools::Tone::kBad,     "K", "kill",     0, kSuppressed | kFrozen},
    {Linux::EventName::kRelease,     "released",   Tools::Tone::kGood,    "R", "end",      0, kSuppressed | kFrozen},
};
// clang-format on

// Null for an event that is not a treatment.
inline const TreatmentKind* FindTreatmentKind(const Tools::Event& event) {
    const auto* found = std::ranges::find_if(kTreatmentKinds,
                                             [&](const TreatmentKind& kind) { return event.Is(kind.event); });
    return found == std::end(kTreatmentKinds) ? nullptr : found;
}

}  // namespace KITE::Rqctl
