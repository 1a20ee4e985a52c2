// rqctl watch: what the service does, as it does it.

#include <fmt/format.h>
#include <poll.h>
#include <sys/signalfd.h>

#include <array>
#include <csignal>
#include <memory>
#include <string>

#include "base/text.h"
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

void TellLine(std::string_view line, bool wantsJson, Narrator& narrator) {
    const auto event = Linux::ReadJson(line, ReadEvent);
    if (!event) {
        Fail(kFailed,
             fmt::format("a line of the events file is no event: {}", Linux::Printable(event.Why().Text())));
    } else if (wantsJson) {
        SayJson(nlohmann::ordered_json::parse(line));
    } else {
        narrator.Tell(*event);
    }
}

ExitStatus Run(const Context& context, bool withHistory) {
    const Linux::UniqueFd stop = OpenStopSignal();
    auto follower = EventFollower::Open(context.settings.stateDirectory, withHistory);
    if (!follower) {
        return Fail(kFailed, follower.Why().Text());
    }
    Narrator narrator;
    std::array<pollfd, 2> waited{{{stop.Get(), POLLIN, 0}, {follower->Descriptor(), POLLIN, 0}}};
    while (waited[0].revents == 0) {
        if (!follower->Read([&](std::string_view line) { TellLine(line, context.wantsJson, narrator); })) {
            return Fail(kFailed, context.settings.stateDirectory + " has been removed");
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
        AddCommand(app, context, "watch", "Tells each report and what follows from it, until Ctrl-C.",
                   [&context, withHistory] { return Run(context, *withHistory); });
    command.add_flag("--history", *withHistory, "begin with what has been recorded already");
    AddJsonOption(command, context);
}

}  // namespace KITE::Rqctl
