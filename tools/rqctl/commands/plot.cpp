// rqctl plot: what was done to whom, as a page to look at.

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "rqctl/commands/command.h"
#include "rqctl/output.h"
#include "rqctl/plot/page.h"
#include "rqctl/plot/run_record.h"

namespace KITE::Rqctl {

namespace {

ExitStatus Run(const Context& context, const std::string& output) {
    RunRecord record;
    std::string error;
    if (!ReadRunRecord(context.settings.stateDirectory + "/events.jsonl", Linux::SamplesPath(), record,
                       error)) {
        return Fail(kFailed, error);
    }
    const std::string page = PageOf(record);
    if (output.empty()) {
        std::fwrite(page.data(), 1, page.size(), stdout);
        return std::fflush(stdout) == 0 ? kDone : Fail(kFailed, "standard output cannot be written");
    }
    std::ofstream file(output, std::ios::binary | std::ios::trunc);
    file << page;
    file.close();
    return file.good() ? kDone : Fail(kFailed, output + ": cannot be written");
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
