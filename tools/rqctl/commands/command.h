#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "rqctl/exit_status.h"
#include "runtime/settings.h"

namespace KITE::Rqctl {

// What the command line says.
struct CommandLine {
    Linux::Settings settings;
    bool wantsJson = false;

    // Of the subcommand that was chosen.
    std::vector<std::string> paths;      // check, explain: quota files, and directories that have one
    bool isStrict = false;               // check
    std::string subject;                 // explain: a process's name or pid
    std::string dumpOption;              // dump
    std::string dumpArgument;            // dump
    std::vector<int32_t> pids;           // io-bytes
    int32_t pid = 0;                     // release
    std::vector<std::string> keyValues;  // device: keys and values, in turn
    std::string output;                  // plot: a file
    bool withHistory = false;            // watch
};

// A subcommand.
struct Command {
    const char* name;
    const char* description;
    // Runs it once the command line has been read. May throw a CLI::ParseError of a wrong command line.
    ExitStatus (*run)(const CommandLine& line);
    // Tells the application its own options and arguments; null when it has none.
    void (*addOptions)(CLI::App& command, CommandLine& line) = nullptr;
    // Its output is data: with --json it prints one JSON document, or one a line.
    bool hasJson = true;
};

extern const Command kCheck;
extern const Command kDevice;
extern const Command kDump;
extern const Command kExplain;
extern const Command kIoBytes;
extern const Command kPlot;
extern const Command kRelease;
extern const Command kRunningTime;
extern const Command kTreated;
extern const Command kWatch;

// The help of paths, wherever quota files are named.
inline constexpr const char* kPathHelp =
    "quota files, or directories with one below etc/efficiency_manager, in the order of merging";

}  // namespace KITE::Rqctl
