// rqctl dump: what the service tells about itself.

#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/file.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "rqctl/bus/ask_service.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"
#include "string_utils.h"

namespace KITE::Rqctl {

namespace {

ExitStatus Run(const CommandLine& line) {
    // The service gives a slow reader two seconds; a file in memory never keeps it waiting.
    const Linux::UniqueFd file(memfd_create("rqctl-dump", MFD_CLOEXEC));
    std::vector<std::u16string> arguments;
    for (const std::string& word : {line.dumpOption, line.dumpArgument}) {
        if (!word.empty()) {
            arguments.push_back(Str8ToStr16(word));
        }
    }
    const ExitStatus status =
        AskService(line, [&](auto& service) { return service.AsObject()->Dump(file.Get(), arguments); });
    if (status != kDone) {
        return status;
    }
    lseek(file.Get(), 0, SEEK_SET);
    const Linux::Result<std::string> dump = Linux::ReadFile(file.Get());
    if (!dump) {
        return Fail(kFailed, "the dump cannot be read back: " + dump.Why().Text());
    }
    // Line by line and escaped: a process chooses its name.
    for (const std::string_view dumped : Linux::Split(*dump, '\n')) {
        Say(Escaped(dumped));
    }
    return kDone;
}

void AddOptions(CLI::App& command, CommandLine& line) {
    command
        .add_option("OPTION", line.dumpOption,
                    "DumpConfig, DumpRunningTime, DumpReportedAbnormalInfo, DumpHandledAbnormalInfo, "
                    "DumpHandledAbnormalEnhanceInfo or DumpGetIoWritebytesAbility (which goes to the log); "
                    "without one the service lists them")
        ->type_name("");
    command.add_option("ARG", line.dumpArgument, "the pid for DumpGetIoWritebytesAbility")->type_name("");
}

}  // namespace

const Command kDump{"dump", "Prints the service's dump: its configuration and what it did.", Run, AddOptions,
                    false};

}  // namespace KITE::Rqctl
