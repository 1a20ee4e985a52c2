#pragma once

#include <memory>

#include "runtime/journal_stand_in.h"

namespace KITE::Benchmarks {

// What a row's loops need, which lives as long as the run.
using Keeper = std::shared_ptr<void>;

// What each adds is described where it is defined. The journal outlives the run.
void AddQuotaExport();
Keeper AddQueries(JournalStandIn& journal);
void AddIdleHosts(JournalStandIn& journal);

}  // namespace KITE::Benchmarks
