// rqctl plot: what was done to which process, as a page to look at.

#include <unistd.h>

#include <string>

#include "base/file.h"
#include "base/file_names.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"
#include "rqctl/plot/page.h"
#include "rqctl/plot/run_record.h"

namespace KITE::Rqctl {

namespace {

ExitStatus Run(const CommandLine& line) {
    const auto record =
        ReadRunRecord(line.settings.stateDirectory + Linux::FileName::kEvents, Linux::SamplesPath());
    if (!record) {
        return Fail(kFailed, record.Why().Text());
    }
    const std::string page = PageOf(*record);
    const std::error_code error =
        line.output.empty() ? Linux::WriteAll(STDOUT_FILENO, page) : Linux::WriteFile(line.output, page);
    const std::string target = line.output.empty() ? "standard output" : line.output;
    return error ? Fail(kFailed, Linux::Failure(target, error).Text()) : kDone;
}

void AddOptions(CLI::App& command, CommandLine& line) {
    command.add_option("--output", line.output, "file for the page; standard output if not given")
        ->type_name("FILE");
}

}  // namespace

const Command kPlot{
    "plot",
    "Makes a page of HTML that shows each treated process: what was measured, its quotas, and "
    "what was done when.",
    Run, AddOptions, false};

}  // namespace KITE::Rqctl
