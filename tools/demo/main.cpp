// kite_demo: brings the system up on a private bus, starts programs that misbehave, and tells whether the
// service dealt with each as the policy says. What ./run starts after the build.
//
// Exit status: 0 each process met its fate (or, with --serve, stopped as asked); 1 one did not, or the system
// does not come up; 128 and the signal's number when a signal ended it early.

#include <fmt/format.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <filesystem>

#include "base/file.h"
#include "base/file_names.h"
#include "demo/configuration.h"
#include "demo/demonstration.h"
#include "private_system/private_system.h"

namespace {

using namespace KITE::Demo;
using KITE::Linux::Result;
using KITE::Linux::UniqueFd;
using KITE::Tools::AwaitReadable;
using KITE::Tools::PrivateSystem;
using KITE::Tools::Tone;
namespace fs = std::filesystem;
namespace FileName = KITE::Linux::FileName;

struct Options {
    fs::path programs;  // the directory of the host; the libraries are in ../lib
    std::string etc;
    std::vector<fs::path> layers;
    fs::path rawLog;
    bool serve = false;
};

int Fail(const std::string& reason) {
    Say(Tone::kBad, reason);
    return 1;
}

void Describe(CLI::App& app, Options& options) {
    app.add_flag("--serve", options.serve, "bring the system up and serve until Ctrl-C");
    app.add_option("--config", options.layers,
                   "a directory with etc/efficiency_manager/process_resource_limit.json, in place of the "
                   "sample layers; may be given again, a later one overrides an earlier one")
        ->check(CLI::ExistingDirectory);
    app.add_option("--etc", options.etc, "the shipped configuration")
        ->required()
        ->check(CLI::ExistingDirectory);
    app.add_option("--raw-log", options.rawLog, "file for the raw log")->required();
}

// From now on SIGINT, SIGTERM and SIGHUP end nothing by themselves: they make the descriptor readable, which
// it stays until the signal is taken. SIGPIPE is ignored, so that everything is cleared up also when the
// reader of our output has gone.
UniqueFd BlockStopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    return UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

// The number of the signal that has come; 0 when none has.
int TakeSignal(int stop) {
    signalfd_siginfo info{};
    return read(stop, &info, sizeof(info)) == sizeof(info) ? static_cast<int>(info.ssi_signo) : 0;
}

Result<void> StartSystem(PrivateSystem& system, const Options& options, int stop) {
    Result<void> result = system.StartBus();
    result = result ? WriteConfiguration(system.Paths().etc, options.etc, options.layers) : result;
    if (!result) {
        return result;
    }
    system.StartQuotaHost();
    system.StartKelvraHost();
    return system.AwaitService(milliseconds(15'000), stop);
}

int Serve(PrivateSystem& system, int stop, const Options& options) {
    constexpr milliseconds kPeriod{200};
    const auto& paths = system.Paths();
    const auto line = [](const char* what, const std::string& where) {
        Say(Tone::kPlain, fmt::format("  {:<14} {}", what, where));
    };
    Say(Tone::kGood, "serving until Ctrl-C");
    line("bus", paths.busAddress);
    line("state", paths.state);
    line("device state", paths.state + FileName::kDeviceState);
    line("events", paths.state + FileName::kEvents);
    line("who is there:", fmt::format("busctl --address={} list --acquired", paths.busAddress));
    line("ask it:", fmt::format("KITE_BUS={} KITE_ETC={} KITE_STATE={} {} --help", paths.busAddress,
                                paths.etc, paths.state, (options.programs / "rqctl").string()));
    while (!AwaitReadable(stop, kPeriod)) {
        if (const std::string failure = system.WhatEnded(); !failure.empty()) {
            return Fail(failure);
        }
    }
    return 0;
}

int Demonstrate(PrivateSystem& system, int stop, const Options& options) {
    Say(Tone::kPlain, "");
    for (const Program& program : Programs()) {
        Say(Tone::kPlain, fmt::format("  {:<15}{}", program.name, program.story));
    }
    Say(Tone::kPlain, "");
    Demonstration demonstration(system, stop, options.programs / "misbehave", options.rawLog.parent_path());
    if (const Result<void> started = demonstration.Start(); !started) {
        return Fail(started.Why().Text());
    }
    demonstration.Watch();
    return !AwaitReadable(stop, milliseconds(0)) && demonstration.Conclude() ? 0 : 1;
}

// A page of what was measured and done.
void MakePage(const PrivateSystem& system, const Options& options, const fs::path& page) {
    KITE::Tools::LogFile log(options.rawLog);
    KITE::Tools::ChildProcess rqctl(
        {.program = options.programs / "rqctl",
         .arguments = {"rqctl", "plot", "--state", system.Paths().state, "--output", fs::absolute(page)},
         .output = log.Fd()});
    const bool isMade = rqctl.AwaitExit() == 0;
    Say(isMade ? Tone::kPlain : Tone::kBad, isMade ? "what happened, as a page to look at: " + page.string()
                                                   : "the page could not be made, see the raw log");
}

int RunSystem(int stop, const Options& options, const fs::path& page) {
    const fs::path libraries = options.programs.parent_path() / "lib";
    PrivateSystem system({.shipped = options.etc,
                          .host = options.programs / "kite_host",
                          .quotaLibrary = libraries / "libresource_quota_control.so",
                          .kelvraLibrary = libraries / "libkelvra_manager.so",
                          .log = options.rawLog});
    const Clock::time_point begin = Clock::now();
    const Result<void> started = StartSystem(system, options, stop);
    if (!started) {
        return AwaitReadable(stop, milliseconds(0)) ? 1 : Fail(started.Why().Text());
    }
    Say(Tone::kGood, "the service is up after " + SecondsText(Clock::now() - begin));
    const int status = options.serve ? Serve(system, stop, options) : Demonstrate(system, stop, options);
    static_cast<void>(system.StopHosts());
    MakePage(system, options, page);
    return status;
}

int Run(const Options& options) {
    const UniqueFd stop = BlockStopSignals();
    if (const auto refused = Demonstration::RefuseNamesakes(); !options.serve && !refused) {
        return Fail(refused.Why().Text());
    }
    if (const std::error_code error = KITE::Linux::WriteFile(options.rawLog, "")) {
        return Fail(options.rawLog.string() + ": " + error.message());
    }
    const fs::path page = fs::path(options.rawLog).replace_extension("html");
    fs::remove(page);
    const int status = RunSystem(stop.Get(), options, page);
    Say(Tone::kQuiet, "raw log: " + options.rawLog.string());
    const int signal = TakeSignal(stop.Get());
    if (signal == 0) {
        return status;
    }
    Say(Tone::kQuiet, "stopped; nothing is left running, frozen or slowed");
    return options.serve && status == 0 ? 0 : 128 + signal;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app("Shows what the resource quota service does to programs that misbehave.", "kite_demo");
        Options options;
        Describe(app, options);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error);
        }
        if (geteuid() != 0) {
            fmt::print(stderr,
                       "kite_demo: must be run as root, to start each process under a user of its own\n");
            return 1;
        }
        umask(022);
        options.programs = fs::read_symlink("/proc/self/exe").parent_path();
        return Run(options);
    } catch (const std::exception& error) {
        fmt::print(stderr, "kite_demo: {}\n", error.what());
        return 1;
    }
}
