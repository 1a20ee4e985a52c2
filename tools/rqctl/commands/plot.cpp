// rqctl plot: what was done to whom, as a page to look at.

#include <unistd.h>

#include <memory>
#include <string>

#include "base/file.h"
#include "base/file_names.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"
#include "rqctl/plot/page.h"
#include "rqctl/plot/run_record.h"

namespace KITE::Rqctl {

namespace {

ExitStatus Run(const Context& context, const std::string& output) {
    const auto record =
        ReadRunRecord(context.settings.stateDirectory + Linux::FileName::kEvents, Linux::SamplesPath());
    if (!record) {
        return Fail(kFailed, record.Why().Text());
    }
    const std::string page = PageOf(*record);
    const std::error_code error =
        output.empty() ? Linux::WriteAll(STDOUT_FILENO, page) : Linux::WriteFile(output, page);
    const std::string target = output.empty() ? "standard output" : output;
    return error ? Fail(kFailed, Linux::Failure(target, error).Text()) : kDone;
}

}  // namespace

void AddPlot(CLI::App& app, Context& context) {
    const auto output = std::make_shared<std::string>();
    CLI::App& command =
        AddCommand(app, context, "plot",
                   "Makes a page of HTML that shows each treated process: what was measured, its quotas, and "
                   "what was done when.",
                   [&context, output] { return Run(context, *output); });
    command.add_option("--output", *output, "file for the page; standard output if not given")
        ->type_name("FILE");
}

}  // namespace KITE::Rqctl
