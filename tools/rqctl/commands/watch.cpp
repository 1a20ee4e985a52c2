// rqctl watch: what the service does, as it does it.

#include <poll.h>
#include <sys/signalfd.h>

#include <array>
#include <csignal>
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
        Fail(kFailed, "a line of the events file is not an event: " + Linux::Printable(event.Why().Text()));
    } else if (wantsJson) {
        SayJson(nlohmann::ordered_json::parse(line));
    } else {
        narrator.Tell(*event);
    }
}

ExitStatus Run(const CommandLine& line) {
    const Linux::UniqueFd stop = OpenStopSignal();
    auto follower = EventFollower::Open(line.settings.stateDirectory, line.withHistory);
    if (!follower) {
        return Fail(kFailed, follower.Why().Text());
    }
    Narrator narrator;
    std::array<pollfd, 2> waited{{{stop.Get(), POLLIN, 0}, {follower->Descriptor(), POLLIN, 0}}};
    while (waited[0].revents == 0) {
        if (!follower->Read([&](std::string_view text) { TellLine(text, line.wantsJson, narrator); })) {
            return Fail(kFailed, line.settings.stateDirectory + " has been removed");
        }
        const auto pause = narrator.TellOfSilence();
        poll(waited.data(), waited.size(), pause ? static_cast<int>(pause->count()) : -1);
    }
    return kDone;
}

void AddOptions(CLI::App& command, CommandLine& line) {
    command.add_flag("--history", line.withHistory, "begin with what has been recorded already");
}

}  // namespace

const Command kWatch{"watch", "Tells each report and what follows from it, until Ctrl-C.", Run, AddOptions};

}  // namespace KITE::Rqctl
