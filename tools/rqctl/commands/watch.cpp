// rqctl watch: what the service does, as it does it.

#include <poll.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <memory>
#include <optional>
#include <string>

#include "rqctl/commands/command.h"
#include "rqctl/output.h"
#include "rqctl/watch/narrator.h"
#include "shared/event_follower.h"

namespace KITE::Rqctl {

namespace {

Linux::UniqueFd OpenStopSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return Linux::UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

// A flat object. What is nested may be so deep that nothing could be done with it.
bool IsEvent(const nlohmann::ordered_json& line) {
    return line.is_object() && std::ranges::none_of(line, [](const nlohmann::ordered_json& value) {
               return value.is_structured();
           });
}

ExitStatus Run(const Context& context, bool withHistory) {
    const Linux::UniqueFd stop = OpenStopSignal();
    auto follower = EventFollower::Open(context.settings.stateDirectory, withHistory);
    if (!follower) {
        return Fail(kFailed, follower.Why().Text());
    }
    Narrator narrator;
    const auto take = [&](std::string_view line) {
        const auto event = nlohmann::ordered_json::parse(line, nullptr, false);
        if (!IsEvent(event)) {
            Fail(kFailed, "a line of the event file is no event");
        } else if (context.wantsJson) {
            SayJson(event);
        } else {
            narrator.Tell(event);
        }
    };
    std::array<pollfd, 2> waited{{{stop.Get(), POLLIN, 0}, {follower->Descriptor(), POLLIN, 0}}};
    while (waited[0].revents == 0) {
        if (!follower->Read(take)) {
            return Fail(kFailed, context.settings.stateDirectory + " has gone");
        }
        const auto pause = narrator.TellOfSilence();
        poll(waited.data(), waited.size(), pause ? static_cast<int>(pause->count()) : -1);
    }
    return kDone;
}

}  // namespace

void AddWatch(CLI::App& app, Context& context) {
    const auto withHistory = std::make_shared<bool>(false);
    CLI::App& command =
        AddCommand(app, context, "watch", "Tells each report and what comes of it, until Ctrl-C.",
                   [&context, withHistory] { return Run(context, *withHistory); });
    command.add_flag("--history", *withHistory, "begin with what has been recorded already");
    AddJsonOption(command, context);
}

}  // namespace KITE::Rqctl
