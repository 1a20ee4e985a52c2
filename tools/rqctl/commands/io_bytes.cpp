// rqctl io-bytes: how much processes have written.

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <memory>
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

void ShowAll(const std::vector<int32_t>& pids, const std::vector<uint64_t>& bytes, bool wantsJson) {
    auto document = nlohmann::ordered_json::array();
    for (size_t i = 0; i < pids.size(); ++i) {
        if (wantsJson) {
            const bool isReadable = bytes[i] != UNREADABLE_WRITE_BYTES;
            document.push_back(
                {{"pid", pids[i]}, {"write_bytes", isReadable ? nlohmann::ordered_json(bytes[i]) : nullptr}});
        } else {
            Show(pids[i], bytes[i]);
        }
    }
    if (wantsJson) {
        SayJson(document);
    }
}

// One request takes a bounded number of pids.
int32_t AskForAll(const ServiceConnection& service, const std::vector<int32_t>& pids,
                  std::vector<uint64_t>& bytes) {
    for (size_t at = 0; at < pids.size(); at += MAX_IO_PIDS) {
        const auto first = pids.begin() + static_cast<ptrdiff_t>(at);
        const auto count = static_cast<ptrdiff_t>(std::min(MAX_IO_PIDS, pids.size() - at));
        std::vector<uint64_t> some;
        if (const int32_t result = service->GetIoWriteBytes({first, first + count}, some)) {
            return result;
        }
        bytes.insert(bytes.end(), some.begin(), some.end());
    }
    return ResourceQuotaCtl::ERR_OK;
}

ExitStatus Run(const Context& context, const std::vector<int32_t>& pids) {
    ServiceConnection service(context);
    if (const ExitStatus status = service.Open()) {
        return status;
    }
    std::vector<uint64_t> bytes;
    if (const int32_t result = AskForAll(service, pids, bytes)) {
        return service.Explain(result);
    }
    ShowAll(pids, bytes, context.wantsJson);
    return kDone;
}

}  // namespace

void AddIoBytes(CLI::App& app, Context& context) {
    const auto pids = std::make_shared<std::vector<int32_t>>();
    CLI::App& command =
        AddCommand(app, context, "io-bytes",
                   "Prints how much processes have written. One that has gone or cannot be read is "
                   "\"unreadable\", null in JSON.",
                   [&context, pids] { return Run(context, *pids); });
    command.add_option("PID", *pids, "the processes")
        ->required()
        ->type_name("")
        ->check(CLI::Range(1, std::numeric_limits<int32_t>::max()));
    AddJsonOption(command, context);
}

}  // namespace KITE::Rqctl
