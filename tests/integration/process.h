#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <ios>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

// Processes that a test starts, watched from outside: by pidfd, /proc and what they write.
namespace KITE::Integration {

using std::chrono::milliseconds;

// How long a test waits for what must come: a program built with sanitizers on a busy machine.
inline constexpr milliseconds kPatience{10'000};

// Looks again and again until the condition holds, for what nobody announces. False when the time is over.
bool Eventually(const std::function<bool()>& condition, milliseconds limit = kPatience);

// The file from there on, empty when it cannot be read.
std::string ReadWholeFile(const std::string& path, std::streamoff from = 0);
void WriteWholeFile(const std::string& path, std::string_view text, mode_t mode = 0644);

// A file that processes write lines to.
class LogFile {
  public:
    explicit LogFile(std::string path);

    int Fd() const { return file_.Get(); }
    // Waits until the text stands in the file, behind what the last wait found.
    bool Await(std::string_view text, milliseconds limit = kPatience);
    bool Contains(std::string_view text) const { return Text().find(text) != std::string::npos; }
    std::string Text() const { return ReadWholeFile(path_); }

  private:
    const std::string path_;
    const Linux::UniqueFd file_;
    const Linux::UniqueFd changes_;
    std::streamoff position_ = 0;
};

struct Pipe {
    Pipe();
    // Writes until no more fits.
    void Fill() const;
    // What has been written; the write end is closed first.
    std::string Text();

    Linux::UniqueFd readEnd;
    Linux::UniqueFd writeEnd;
};

struct Launch {
    std::string program = {};
    std::vector<std::string> arguments = {};  // with the name that the process shall bear in front
    std::string directory = "/";
    uid_t uid = 0;
    int output = -1;  // standard output and error; nowhere if negative
    std::optional<int> cpu = std::nullopt;
    pid_t pid = 0;  // the pid that it must get; any if 0
    bool hasOwnSession = true;
};

// A process, usually of a login session of its own, which ends with this object and with the test.
class Process {
  public:
    explicit Process(const Launch& launch);
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process();

    // False when the program could not be executed.
    bool IsStarted() const { return static_cast<bool>(pidfd_); }
    pid_t Pid() const { return pid_; }
    const std::string& Name() const { return name_; }
    // The letter of /proc/PID/stat.
    bool AwaitState(char state) const;
    // In clock ticks since boot.
    int64_t StartTime() const;
    std::chrono::nanoseconds CpuTime() const;
    // CPU time of the next stretch of time, in percent of a core.
    double CpuPercent(milliseconds stretch) const;
    // Whether it gets no processor time at all, or gets some before long.
    bool StandsStill() const;
    bool Runs() const;
    // What a suppression changes: every thread's policy and niceness, and the groups of the process.
    std::string Standing() const;
    // Of its first thread.
    std::vector<pid_t> Children() const;
    size_t DescriptorCount() const { return Count("fd"); }
    size_t ThreadCount() const { return Count("task"); }
    size_t ResidentKiB() const;

    void Signal(int signal) const;
    bool HasEnded(milliseconds limit = milliseconds(0)) const;
    // The wait status, once it has ended.
    std::optional<int> AwaitEnd(milliseconds limit = kPatience);
    // The exit status; -1 when it was killed or has not ended in time.
    int AwaitExit(milliseconds limit = kPatience);

  private:
    // The fields of /proc/PID/stat behind the name.
    std::vector<std::string> Stat() const;
    size_t Count(const char* kind) const;
    std::string ProcPath(const char* file) const { return "/proc/" + std::to_string(pid_) + "/" + file; }

    const std::string name_;
    pid_t pid_ = -1;
    Linux::UniqueFd pidfd_;
    std::optional<int> waitStatus_;
};

}  // namespace KITE::Integration
