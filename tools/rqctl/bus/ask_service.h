#pragma once

#include <cstdint>
#include <functional>

#include "resource_quota_control_proxy.h"
#include "rqctl/commands/command.h"

namespace KITE::Rqctl {

// Asks the service: `ask` makes the requests and returns what the proxy returns. Returns kDone for ERR_OK, or
// what went wrong after telling it.
ExitStatus AskService(const CommandLine& line,
                      const std::function<int32_t(ResourceQuotaCtl::ResourceQuotaControlProxy&)>& ask);

}  // namespace KITE::Rqctl
