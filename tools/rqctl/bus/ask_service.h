#pragma once

#include <cstdint>
#include <functional>

#include "resource_quota_control_proxy.h"
#include "rqctl/commands/command.h"

namespace KITE::Rqctl {

// `ask` makes the requests and returns the proxy's result. Tells what went wrong and returns it; else kDone.
ExitStatus AskService(const CommandLine& line,
                      const std::function<int32_t(ResourceQuotaCtl::ResourceQuotaControlProxy&)>& ask);

}  // namespace KITE::Rqctl
