// rqctl io-bytes: how much processes have written.

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

#include "resource_quota_control_errors.h"
#include "rqctl/bus/ask_service.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"
#include "shared/wording.h"

namespace KITE::Rqctl {

namespace {

using ResourceQuotaCtl::MAX_IO_PIDS;
using ResourceQuotaCtl::UNREADABLE_WRITE_BYTES;

void Show(int32_t pid, uint64_t bytes) {
    if (bytes == UNREADABLE_WRITE_BYTES) {
        Say(Paint(Tone::kQuiet, fmt::format("{:8}  {:>20}", pid, "unreadable")));
    } else {
        Say(fmt::format("{:8}  {:20}  {}", pid, bytes,
                        bytes < 1024 ? "" : BytesText(static_cast<double>(bytes))));
    }
}

nlohmann::ordered_json JsonOf(int32_t pid, uint64_t bytes) {
    using nlohmann::ordered_json;
    return {{"pid", pid},
            {"write_bytes", bytes == UNREADABLE_WRITE_BYTES ? ordered_json() : ordered_json(bytes)}};
}

// One request takes a bounded number of pids.
int32_t AskForAll(ResourceQuotaCtl::ResourceQuotaControlProxy& service, const std::vector<int32_t>& pids,
                  std::vector<uint64_t>& bytes) {
    for (size_t at = 0; at < pids.size(); at += MAX_IO_PIDS) {
        const auto first = pids.begin() + static_cast<ptrdiff_t>(at);
        const auto count = static_cast<ptrdiff_t>(std::min(MAX_IO_PIDS, pids.size() - at));
        std::vector<uint64_t> some;
        if (const int32_t result = service.GetIoWriteBytes({first, first + count}, some)) {
            return result;
        }
        bytes.insert(bytes.end(), some.begin(), some.end());
    }
    return ResourceQuotaCtl::ERR_OK;
}

ExitStatus Run(const CommandLine& line) {
    std::vector<uint64_t> bytes;
    const ExitStatus status =
        AskService(line, [&](auto& service) { return AskForAll(service, line.pids, bytes); });
    if (status != kDone) {
        return status;
    }
    auto document = nlohmann::ordered_json::array();
    for (size_t i = 0; i < bytes.size(); ++i) {
        line.wantsJson ? document.push_back(JsonOf(line.pids[i], bytes[i])) : Show(line.pids[i], bytes[i]);
    }
    if (line.wantsJson) {
        SayJson(document);
    }
    return kDone;
}

void AddOptions(CLI::App& command, CommandLine& line) {
    command.add_option("PID", line.pids, "the processes")
        ->required()
        ->type_name("")
        ->check(CLI::Range(1, INT32_MAX));
}

}  // namespace

const Command kIoBytes{"io-bytes",
                       "Prints how much processes have written. One that has gone or cannot be read is "
                       "\"unreadable\", null in JSON.",
                       Run, AddOptions};

}  // namespace KITE::Rqctl
