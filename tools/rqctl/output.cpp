#include "rqctl/output.h"

#include <fmt/format.h>

#include <cstdio>

namespace KITE::Rqctl {

void SayJson(const nlohmann::ordered_json& document) {
    Say(document.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace));
}

ExitStatus Fail(ExitStatus status, const std::string& reason) {
    fmt::print(stderr, "rqctl: {}\n", reason);
    return status;
}

}  // namespace KITE::Rqctl
