#pragma once

#include <cstddef>

#include "ratio_table.h"

namespace KITE::Benchmarks {

// How many processes the sampling rows watch.
inline constexpr size_t kWatched = 50;

// What each adds is described where it is defined.
void AddSample();
void AddMonit();
void AddReaction();

}  // namespace KITE::Benchmarks
