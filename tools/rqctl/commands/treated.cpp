// rqctl treated: which processes are suppressed or frozen now, since when and why.

#include <fmt/format.h>

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "base/file_names.h"
#include "rqctl/bus/ask_host.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"
#include "shared/wording.h"

namespace KITE::Rqctl {

namespace {

using nlohmann::ordered_json;

struct Treated {
    int32_t pid = 0;
    std::string name;
    // Milliseconds since the epoch, 0 where there is none.
    int64_t suppressedSince = 0;
    int64_t frozenSince = 0;
    int64_t frozenUntil = 0;
    // The last report before the treatment.
    std::string resourceType;
    int32_t ruleId = 0;
    int64_t resource = 0;
    int64_t duration = 0;
};

// Above 0 when there was one more in the list, 0 at its end, else a negative error number.
int ReadOne(sd_bus_message* answer, Treated& treated) {
    const char* name = "";
    const char* resourceType = "";
    const int result = sd_bus_message_read(
        answer, "(isxxxsixx)", &treated.pid, &name, &treated.suppressedSince, &treated.frozenSince,
        &treated.frozenUntil, &resourceType, &treated.ruleId, &treated.resource, &treated.duration);
    treated.name = name;
    treated.resourceType = resourceType;
    return result;
}

int ReadAll(sd_bus_message* answer, int& isDryRun, std::vector<Treated>& processes) {
    int result = sd_bus_message_read(answer, "b", &isDryRun);
    result = result < 0 ? result : sd_bus_message_enter_container(answer, 'a', "(isxxxsixx)");
    for (Treated treated; result >= 0 && (result = ReadOne(answer, treated)) > 0;) {
        processes.push_back(treated);
    }
    return result;
}

std::string LineOf(const Treated& treated) {
    std::string line = ProcessText(treated.name, treated.pid);
    if (treated.suppressedSince != 0) {
        line += ", suppressed since " + MomentText(treated.suppressedSince);
    }
    if (treated.frozenSince != 0) {
        line += ", frozen since " + MomentText(treated.frozenSince) +
                (treated.frozenUntil != 0 ? " until " + MomentText(treated.frozenUntil) : ", without an end");
    }
    if (treated.suppressedSince == 0 && treated.frozenSince == 0) {
        line += ", a part of its treatment could not be undone yet";
    }
    return fmt::format("{}; last report before: {}, rule {}", line,
                       MeasureText(treated.resourceType, treated.resource, treated.duration), treated.ruleId);
}

ordered_json JsonOf(const Treated& treated) {
    const auto moment = [](int64_t time) { return time == 0 ? ordered_json() : ordered_json(time); };
    return {{"pid", treated.pid},
            {"process_name", treated.name},
            {"suppressed_since", moment(treated.suppressedSince)},
            {"frozen_since", moment(treated.frozenSince)},
            {"frozen_until", moment(treated.frozenUntil)},
            {"resource_type", treated.resourceType},
            {"rule_id", treated.ruleId},
            {"resource", treated.resource},
            {"duration", treated.duration}};
}

void Show(const std::vector<Treated>& processes, bool isDryRun, bool wantsJson) {
    auto list = ordered_json::array();
    for (const Treated& treated : processes) {
        wantsJson ? list.push_back(JsonOf(treated))
                  : Say((isDryRun ? "dry run, would be: " : "") + LineOf(treated));
    }
    if (wantsJson) {
        SayJson({{"dry_run", isDryRun}, {"treated", list}});
    }
}

// The records of a host that may have been killed; to standard error, since they are not the answer.
void TellOfRecords() {
    std::error_code error;
    for (const auto& entry :
         std::filesystem::directory_iterator(Linux::RunDirectory() + Linux::FileName::kTreatments, error)) {
        const std::string name = entry.path().filename();
        if (!name.starts_with('.')) {
            Fail(kUnreachable,
                 fmt::format("a record says that a host treats pid {}; if that host was killed, "
                             "\"kite_host --release --run {}\" releases the process",
                             Escaped(name.substr(0, name.find('-'))), Escaped(Linux::RunDirectory())));
        }
    }
}

ExitStatus Run(const CommandLine& line) {
    int isDryRun = 0;
    std::vector<Treated> processes;
    const ExitStatus status = AskHost(
        line, "List", [](sd_bus_message*) { return 0; },
        [&](sd_bus_message* answer) { return ReadAll(answer, isDryRun, processes); });
    if (status == kDone) {
        Show(processes, isDryRun != 0, line.wantsJson);
    } else if (status == kUnreachable) {
        TellOfRecords();
    }
    return status;
}

}  // namespace

const Command kTreated{"treated", "Lists the processes that are suppressed or frozen, since when and why.",
                       Run};

}  // namespace KITE::Rqctl
