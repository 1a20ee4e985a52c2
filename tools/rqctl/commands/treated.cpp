// rqctl treated: which processes are suppressed or frozen now, since when and why.

#include <fmt/format.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "base/file_names.h"
#include "rqctl/bus/ask_host.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"
#include "shared/wording.h"

namespace KITE::Rqctl {

namespace {

using nlohmann::ordered_json;

// Reads the next process, in the form of --json. Above 0: there was one; 0: the end; below 0: an error.
int ReadOne(sd_bus_message* answer, ordered_json& treated) {
    int32_t pid = 0;
    int32_t ruleId = 0;
    int64_t suppressed = 0;
    int64_t frozen = 0;
    int64_t frozenUntil = 0;
    int64_t resource = 0;
    int64_t duration = 0;
    const char* name = "";
    const char* type = "";
    const int result = sd_bus_message_read(answer, "(isxxxsixx)", &pid, &name, &suppressed, &frozen,
                                           &frozenUntil, &type, &ruleId, &resource, &duration);
    const auto moment = [](int64_t time) { return time == 0 ? ordered_json() : ordered_json(time); };
    treated = {{"pid", pid},
               {"process_name", name},
               {"suppressed_since", moment(suppressed)},
               {"frozen_since", moment(frozen)},
               {"frozen_until", moment(frozenUntil)},
               {"resource_type", type},
               {"rule_id", ruleId},
               {"resource", resource},
               {"duration", duration}};
    return result;
}

int ReadAll(sd_bus_message* answer, int& isDryRun, ordered_json& processes) {
    int result = sd_bus_message_read(answer, "b", &isDryRun);
    result = result < 0 ? result : sd_bus_message_enter_container(answer, 'a', "(isxxxsixx)");
    for (ordered_json treated; result >= 0 && (result = ReadOne(answer, treated)) > 0;) {
        processes.push_back(treated);
    }
    return result;
}

std::string LineOf(const ordered_json& treated) {
    const auto moment = [&](const char* key) { return MomentText(treated.at(key).get<int64_t>()); };
    const auto isThere = [&](const char* key) { return !treated.at(key).is_null(); };
    std::string line = ProcessText(treated.at("process_name").get<std::string>(), treated.at("pid"));
    if (isThere("suppressed_since")) {
        line += ", suppressed since " + moment("suppressed_since");
    }
    if (isThere("frozen_since")) {
        line += ", frozen since " + moment("frozen_since") +
                (isThere("frozen_until") ? " until " + moment("frozen_until") : ", without an end");
    }
    if (!isThere("suppressed_since") && !isThere("frozen_since")) {
        line += ", a part of its treatment could not be undone yet";
    }
    return fmt::format("{}; last report before: {}, rule {}", line,
                       MeasureText(treated.at("resource_type").get<std::string>(), treated.at("resource"),
                                   treated.at("duration")),
                       treated.at("rule_id").get<int64_t>());
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
    auto processes = ordered_json::array();
    const ExitStatus status = AskHost(
        line, "List", [](sd_bus_message*) { return 0; },
        [&](sd_bus_message* answer) { return ReadAll(answer, isDryRun, processes); });
    if (status == kUnreachable) {
        TellOfRecords();
    } else if (status == kDone && line.wantsJson) {
        SayJson({{"dry_run", isDryRun != 0}, {"treated", processes}});
    } else if (status == kDone) {
        for (const ordered_json& treated : processes) {
            Say((isDryRun != 0 ? "dry run, would be: " : "") + LineOf(treated));
        }
    }
    return status;
}

}  // namespace

const Command kTreated{"treated", "Lists the processes that are suppressed or frozen, since when and why.",
                       Run};

}  // namespace KITE::Rqctl
