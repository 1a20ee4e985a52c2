// rqctl io-bytes: how much processes have written.

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "resource_quota_control_errors.h"
#include "rqctl/bus/ask_service.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"

namespace KITE::Rqctl {

namespace {

using ResourceQuotaCtl::MAX_IO_PIDS;
using ResourceQuotaCtl::UNREADABLE_WRITE_BYTES;

// "12.3 MiB".
std::string WithUnit(uint64_t bytes) {
    static constexpr std::array<const char*, 7> kUnits{"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto value = static_cast<double>(bytes);
    size_t unit = 0;
    for (; value >= 1024 && unit + 1 < kUnits.size(); ++unit) {
        value /= 1024;
    }
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.*f %s", unit == 0 ? 0 : 1, value, kUnits.at(unit));
    return text.data();
}

void Show(int32_t pid, uint64_t bytes) {
    std::array<char, 64> text{};
    if (bytes == UNREADABLE_WRITE_BYTES) {
        std::snprintf(text.data(), text.size(), "%8d  %20s", pid, "unreadable");
        Say(Paint(Tone::kQuiet, text.data()));
        return;
    }
    std::snprintf(text.data(), text.size(), "%8d  %20lu  ", pid, bytes);
    Say(text.data() + (bytes < 1024 ? "" : WithUnit(bytes)));
}

void ShowAll(const std::vector<int32_t>& pids, const std::vector<uint64_t>& bytes, bool wantsJson) {
    auto document = nlohmann::ordered_json::array();
    for (size_t i = 0; i < pids.size(); ++i) {
        if (wantsJson) {
            nlohmann::ordered_json& entry = document.emplace_back();
            entry["pid"] = pids[i];
            entry["write_bytes"] = nullptr;
            if (bytes[i] != UNREADABLE_WRITE_BYTES) {
                entry["write_bytes"] = bytes[i];
            }
        } else {
            Show(pids[i], bytes[i]);
        }
    }
    if (wantsJson) {
        SayJson(document);
    }
}

// One request takes a bounded number of pids.
int32_t AskForAll(const Service& service, const std::vector<int32_t>& pids, std::vector<uint64_t>& bytes) {
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
    Service service(context);
    if (const ExitStatus status = service.Connect()) {
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
