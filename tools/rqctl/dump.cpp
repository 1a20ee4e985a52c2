// rqctl dump: what the service tells about itself.

#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "ipc/bus_connection.h"
#include "rqctl/command.h"
#include "rqctl/output.h"
#include "string_utils.h"
#include "system_ability.h"

namespace KITE::Rqctl {

namespace {

ExitStatus Run(const Context& context, const std::vector<std::string>& words) {
    std::string error;
    Linux::BusConnection connection;
    if (!connection.Open(context.settings.busAddress, error)) {
        return Fail(kUnreachable, error);
    }
    const sptr<IRemoteObject> service =
        SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager()->GetSystemAbility(1913);
    if (!service) {
        return Fail(kUnreachable, "the service is not there");
    }
    std::vector<std::u16string> arguments;
    for (const std::string& word : words) {
        arguments.push_back(Str8ToStr16(word));
    }
    return service->Dump(STDOUT_FILENO, arguments) == 0 ? kDone : Fail(kDenied, "refused");
}

}  // namespace

void AddDump(CLI::App& app, Context& context) {
    const auto words = std::make_shared<std::vector<std::string>>();
    CLI::App& command = AddCommand(app, context, "dump", "Prints what the service tells about itself.",
                                   [&context, words] { return Run(context, *words); });
    command
        .add_option("OPTION", *words,
                    "what to dump, and its argument; without it the service lists the options")
        ->expected(0, 2);
}

}  // namespace KITE::Rqctl
