#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "rqctl/exit_status.h"
#include "shared/terminal.h"

namespace KITE::Rqctl {

using namespace Tools;

// Writes a JSON document to standard output, in ASCII; text that is not UTF-8 gets U+FFFD.
inline void SayJson(const nlohmann::ordered_json& document) {
    Say(document.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace));
}

// Writes "rqctl: REASON" to standard error and returns the status.
inline ExitStatus Fail(ExitStatus status, const std::string& reason) {
    fmt::print(stderr, "rqctl: {}\n", reason);
    return status;
}

}  // namespace KITE::Rqctl
