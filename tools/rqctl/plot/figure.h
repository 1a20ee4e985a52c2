#pragma once

#include <string>

#include "rqctl/plot/panel.h"

namespace KITE::Rqctl {

// Of each resource that the process has a quota of, a figure of what was measured, the quotas, and what was
// done; a flat one where no quota was exceeded. Of a process without samples, a figure of what was done.
// SVG elements.
std::string FiguresOf(const Panel& panel);

}  // namespace KITE::Rqctl
