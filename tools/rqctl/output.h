#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "rqctl/exit_status.h"
#include "shared/terminal.h"

namespace KITE::Rqctl {

using namespace Tools;

// Writes a JSON document to standard output, in ASCII; text that is not UTF-8 gets U+FFFD.
void SayJson(const nlohmann::ordered_json& document);

// Writes "rqctl: REASON" to standard error and returns the status.
ExitStatus Fail(ExitStatus status, const std::string& reason);

}  // namespace KITE::Rqctl
