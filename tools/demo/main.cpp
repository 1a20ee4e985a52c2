// kite_demo: brings the system up on a private bus, lets programs misbehave, and tells whether the service
// dealt with each as the policy says. What ./run starts after the build.
//
// Exit status: 0 each process met its fate (or, with --serve, stopped as asked); 1 one did not, or the system
// does not come up; 128 and the signal's number when a signal ended it early.

#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

#include "demo/demonstration.h"
#include "demo/display.h"
#include "demo/kite_system.h"
#include "demo/loop.h"

namespace {

using namespace KITE::Demo;

constexpr int kFailed = 1;
constexpr int kSignalled = 128;

struct Options {
    SystemOptions system;
    bool serve = false;
};

void Describe(CLI::App& app, Options& options) {
    app.add_flag("--serve", options.serve, "bring the system up and serve until Ctrl-C");
    app.add_option("--config", options.system.configurations,
                   "a directory with etc/efficiency_manager/process_resource_limit.json, in place of the "
                   "sample layers; may be given again, a later one overrides an earlier one")
        ->check(CLI::ExistingDirectory);
    app.add_option("--etc", options.system.etcDirectory, "the shipped configuration")
        ->required()
        ->check(CLI::ExistingDirectory);
    app.add_option("--raw-log", options.system.rawLog, "file for the raw log")->required();
}

int StatusOf(const Loop& loop, bool isAllWell) {
    if (loop.StopSignal() != 0) {
        return kSignalled + loop.StopSignal();
    }
    return isAllWell ? 0 : kFailed;
}

int Serve(Loop& loop, const KiteSystem& system, const Display& display, const SystemOptions& options) {
    display.Say(Tone::kGood, "serving until Ctrl-C");
    display.Say(Tone::kPlain, "  bus            " + system.BusAddress());
    display.Say(Tone::kPlain, "  state          " + system.StateDirectory().string());
    display.Say(Tone::kPlain, "  device state   " + (system.StateDirectory() / "device_state.json").string());
    display.Say(Tone::kPlain, "  events         " + (system.StateDirectory() / "events.jsonl").string());
    display.Say(Tone::kQuiet,
                "  who is there:  busctl --address=" + system.BusAddress() + " list --acquired");
    display.Say(Tone::kQuiet, "  ask it:        KITE_BUS=" + system.BusAddress() +
                                  " KITE_ETC=" + system.EtcDirectory().string() +
                                  " KITE_STATE=" + system.StateDirectory().string() + " " +
                                  (options.binaryDirectory / "rqctl").string() + " --help");
    std::string failure;
    const auto ticks = loop.Every(milliseconds(200), [&] { failure = system.WhatFailed(); });
    while (failure.empty() && loop.StopSignal() == 0) {
        loop.RunUntil([&] { return !failure.empty(); }, std::chrono::hours(1));
    }
    if (!failure.empty()) {
        display.Say(Tone::kBad, failure);
        return kFailed;
    }
    return 0;
}

int Demonstrate(Loop& loop, KiteSystem& system, Display& display, const SystemOptions& options) {
    display.Say(Tone::kPlain, "");
    for (const Program& program : Programs()) {
        display.Say(Tone::kPlain,
                    "  " + program.name + std::string(15 - program.name.size(), ' ') + program.story);
    }
    display.Say(Tone::kPlain, "");
    Demonstration demonstration(loop, system, display, options);
    std::string error;
    if (!demonstration.Start(error)) {
        display.Say(Tone::kBad, error);
        return kFailed;
    }
    return StatusOf(loop, demonstration.Watch() && demonstration.Conclude());
}

int Run(const Options& options) {
    Display display;
    Loop loop;
    const std::optional<std::string> namesake = options.serve ? std::nullopt : Demonstration::FindNamesake();
    if (namesake) {
        display.Say(Tone::kBad, *namesake);
        return kFailed;
    }
    int status = kFailed;
    const std::filesystem::path page = std::filesystem::path(options.system.rawLog).replace_extension("html");
    std::filesystem::remove(page);
    {
        KiteSystem system(loop, options.system);
        std::string error;
        const Clock::time_point begin = Clock::now();
        if (!system.Start(error)) {
            if (loop.StopSignal() == 0) {
                display.Say(Tone::kBad, error);
            }
            status = StatusOf(loop, false);
        } else {
            const auto time = std::chrono::duration_cast<milliseconds>(Clock::now() - begin).count();
            display.Say(Tone::kGood, "the service is up after " + std::to_string(time) + " ms");
            status = options.serve ? Serve(loop, system, display, options.system)
                                   : Demonstrate(loop, system, display, options.system);
            static_cast<void>(system.StopHosts());
            if (!system.WritePlot(page)) {
                display.Say(Tone::kBad, "the page could not be made, see the raw log");
            }
        }
    }
    if (loop.StopSignal() != 0) {
        display.Say(Tone::kQuiet, "stopped; nothing is left running, frozen or slowed");
    }
    display.Say(Tone::kQuiet, "raw log: " + options.system.rawLog.string());
    if (std::filesystem::exists(page)) {
        display.Say(Tone::kPlain, "what happened, as a page to look at: " + page.string());
    }
    return status;
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
            std::cerr << "kite_demo: must be run as root, to start each process under a user of its own\n";
            return kFailed;
        }
        umask(022);
        options.system.binaryDirectory = std::filesystem::read_symlink("/proc/self/exe").parent_path();
        return Run(options);
    } catch (const std::exception& error) {
        std::cerr << "kite_demo: " << error.what() << '\n';
        return kFailed;
    }
}
