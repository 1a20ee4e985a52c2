// rqctl treated: which processes are suppressed or frozen now, since when and why.

#include <fmt/format.h>

#include <filesystem>
#include <string>
#include <system_error>
#include <utility>
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

struct Listing {
    bool isDryRun = false;
    std::vector<Treated> processes;
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

int Read(sd_bus_message* answer, Listing& listing) {
    int isDryRun = 0;
    int result = sd_bus_message_read(answer, "b", &isDryRun);
    listing.isDryRun = isDryRun != 0;
    result = result < 0 ? result : sd_bus_message_enter_container(answer, 'a', "(isxxxsixx)");
    for (Treated treated; result >= 0 && (result = ReadOne(answer, treated)) > 0;) {
        listing.processes.push_back(treated);
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
    ordered_json object{{"pid", treated.pid}, {"process_name", treated.name}};
    for (const auto& [key, moment] : {std::pair{"suppressed_since", treated.suppressedSince},
                                      {"frozen_since", treated.frozenSince},
                                      {"frozen_until", treated.frozenUntil}}) {
        object[key] = moment == 0 ? ordered_json() : ordered_json(moment);
    }
    object["resource_type"] = treated.resourceType;
    object["rule_id"] = treated.ruleId;
    object["resource"] = treated.resource;
    object["duration"] = treated.duration;
    return object;
}

void Show(const Listing& listing, bool wantsJson) {
    if (wantsJson) {
        auto list = ordered_json::array();
        for (const Treated& treated : listing.processes) {
            list.push_back(JsonOf(treated));
        }
        SayJson({{"dry_run", listing.isDryRun}, {"treated", list}});
        return;
    }
    for (const Treated& treated : listing.processes) {
        Say((listing.isDryRun ? "dry run, would be: " : "") + LineOf(treated));
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

ExitStatus Run(const Context& context) {
    Listing listing;
    const ExitStatus status = AskHost(
        context, "List", [](sd_bus_message*) { return 0; },
        [&listing](sd_bus_message* answer) { return Read(answer, listing); });
    if (status == kDone) {
        Show(listing, context.wantsJson);
    } else if (status == kUnreachable) {
        TellOfRecords();
    }
    return status;
}

}  // namespace

void AddTreated(CLI::App& app, Context& context) {
    AddJsonOption(AddCommand(app, context, "treated",
                             "Lists the processes that are suppressed or frozen, since when and why.",
                             [&context] { return Run(context); }),
                  context);
}

}  // namespace KITE::Rqctl
