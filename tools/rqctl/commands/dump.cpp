// rqctl dump: what the service tells about itself.

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "base/file.h"
#include "base/unique_fd.h"
#include "parameters.h"
#include "resource_quota_control_errors.h"
#include "rqctl/bus/ask_service.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"
#include "string_utils.h"

namespace KITE::Rqctl {

namespace {

// The service answers every refusal alike. Which of its two conditions is missing can be told from the files
// that its host reads, if those are the ones that we see.
ExitStatus ExplainRefusal(const Context& context) {
    std::string text = "the service refuses the dump, or could not write it (0x261000C). As far as " +
                       context.settings.etcDirectory + " tells:";
    if (!IsTold(context, "parameters.json")) {
        text += "\n  nothing of the build: parameters.json cannot be read";
    } else if (GetIntParameter("const.debuggable", 0) == 0) {
        text += "\n  the build is not debuggable: const.debuggable in parameters.json is 0 or missing";
    } else {
        text += "\n  the build is debuggable";
    }
    const Self self = LookUpSelf(context);
    const std::string uid = "uid " + std::to_string(geteuid());
    if (!self.isKnown) {
        text += "\n  nothing of permissions: tokens.json cannot be read or is not accepted";
    } else {
        text += "\n  " + uid + (self.mayDump ? " has" : " lacks") +
                " the permission kite.permission.DUMP in tokens.json";
    }
    return Fail(kDenied, text);
}

// Line by line, since the names in it are whatever processes call themselves.
void Show(const std::string& dump) {
    std::istringstream lines(dump);
    for (std::string line; std::getline(lines, line);) {
        Say(Escaped(line));
    }
}

ExitStatus Run(const Context& context, const std::array<std::string, 2>& words) {
    Service service(context);
    if (const ExitStatus status = service.Connect()) {
        return status;
    }
    // The service gives a slow reader two seconds; a file in memory never keeps it waiting.
    const Linux::UniqueFd file(memfd_create("rqctl-dump", MFD_CLOEXEC));
    std::vector<std::u16string> arguments;
    for (const std::string& word : words) {
        if (!word.empty()) {
            arguments.push_back(Str8ToStr16(word));
        }
    }
    const int32_t result = service->AsObject()->Dump(file.Get(), arguments);
    if (result != ERR_NONE) {
        return result == ResourceQuotaCtl::ERR_RQC_DUMP_FAILED ? ExplainRefusal(context)
                                                               : service.Explain(result);
    }
    lseek(file.Get(), 0, SEEK_SET);
    const Linux::Result<std::string> dump = Linux::ReadFile(file.Get());
    if (!dump) {
        return Fail(kFailed, "the dump cannot be read back: " + dump.Why().Text());
    }
    Show(*dump);
    return kDone;
}

}  // namespace

void AddDump(CLI::App& app, Context& context) {
    const auto words = std::make_shared<std::array<std::string, 2>>();
    CLI::App& command = AddCommand(app, context, "dump", "Prints what the service tells about itself.",
                                   [&context, words] { return Run(context, *words); });
    command
        .add_option("OPTION", (*words)[0],
                    "DumpConfig, DumpRunningTime, DumpReportedAbnormalInfo, DumpHandledAbnormalInfo, "
                    "DumpHandledAbnormalEnhanceInfo or DumpGetIoWritebytesAbility (which goes to the log); "
                    "without one the service lists them")
        ->type_name("");
    command.add_option("ARG", (*words)[1], "the pid for DumpGetIoWritebytesAbility")->type_name("");
}

}  // namespace KITE::Rqctl
