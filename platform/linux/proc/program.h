#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

// What a process executes, and its names, which prove nothing: a process chooses its arguments. Any thread.
namespace KITE::Linux {

// Enough for the first 4095 bytes of a command line; a longer first argument gives no name.
inline constexpr size_t kCommandLineBuffer = 4096;

// The process name: the last path component of the first argument, whole. Empty for kernel threads and
// zombies, and when a read of kCommandLineBuffer bytes may have cut the argument off.
std::string_view ProcessNameOf(std::string_view commandLine);
// Of the command line that the process has now; empty when that cannot be read.
std::string ReadProcessName(pid_t pid);

// The name that the quota service sees when it verifies a process that was reported to it: what follows the
// last slash of all arguments, cut at 15 bytes and at the first NUL.
std::string_view SeenNameOf(std::string_view commandLine);
// Whether the service accepts a report under that name.
bool IsAcceptedAs(std::string_view seenName, std::string_view reportedName);

// Which file a process executes. It changes with every exec of another program.
struct ExecutableIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    uid_t owner = 0;

    bool operator==(const ExecutableIdentity&) const = default;
};

// Absent when the process is gone, may not be looked at, or executes no file (a kernel thread).
std::optional<ExecutableIdentity> ReadExecutableIdentity(pid_t pid);
// The file's name without its directory, also when the file has been replaced since; empty as above.
std::string ReadExecutableName(pid_t pid);

}  // namespace KITE::Linux
