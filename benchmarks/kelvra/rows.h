#pragma once

#include <vector>

#include "ratio_table.h"

namespace KITE::Benchmarks {

void AddSample();
void AddMonit();
void AddReaction();

}  // namespace KITE::Benchmarks
