#pragma once

#include <string>

#include "demo/observer.h"

// Whether what was seen of a program is the fate that the policy gives it.
namespace KITE::Demo {

// What shall happen, for the table.
std::string FateText(Fate fate);

// What happened, for the table: each kind of happening in the order of its first time, with how often.
std::string HistoryText(const Observer& observer);

// Whether it has met its fate as far as that can be while the service runs.
bool IsFateReached(const Observer& observer);

// Why what was seen is not the program's fate; empty when it is.
std::string Shortcoming(const Observer& observer);

}  // namespace KITE::Demo
