// rqctl dump: what the service tells about itself.

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "base/file.h"
#include "base/file_names.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "parameters.h"
#include "resource_quota_control_errors.h"
#include "rqctl/bus/ask_service.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"
#include "string_utils.h"

namespace KITE::Rqctl {

namespace {

std::string_view BuildText(const Context& context) {
    if (!IsReadable(context, Linux::FileName::kParameters)) {
        return "whether the build is debuggable is unknown: parameters.json cannot be read";
    }
    return GetIntParameter("const.debuggable", 0) == 0
               ? "the build is not debuggable: const.debuggable in parameters.json is 0 or missing"
               : "the build is debuggable";
}

std::string PermissionText(const OwnToken& self) {
    return self.isKnown ? fmt::format("uid {} {} the permission kite.permission.DUMP in tokens.json",
                                      geteuid(), self.mayDump ? "has" : "lacks")
                        : "permissions are unknown: tokens.json cannot be read or is not accepted";
}

// The service answers every refusal alike. Which of its two conditions is missing can be told from the files
// that its host reads, if those are the ones that we see.
ExitStatus ExplainRefusal(const Context& context) {
    return Fail(kDenied,
                fmt::format("the service refuses the dump, or could not write it (0x261000C). According to "
                            "the files in {}:\n  {}\n  {}",
                            context.settings.etcDirectory, BuildText(context),
                            PermissionText(LookUpOwnToken(context))));
}

// Line by line and escaped: a process chooses its name.
void Show(const std::string& dump) {
    for (const std::string_view line : Linux::Split(dump, '\n')) {
        Say(Escaped(line));
    }
}

ExitStatus Run(const Context& context, const std::array<std::string, 2>& words) {
    ServiceConnection service(context);
    if (const ExitStatus status = service.Open()) {
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
    CLI::App& command =
        AddCommand(app, context, "dump", "Prints the service's dump: its configuration and what it did.",
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
