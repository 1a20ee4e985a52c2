#include "process.h"

#include <fcntl.h>
#include <linux/sched.h>
#include <poll.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace KITE::Integration {

namespace {

using Clock = std::chrono::steady_clock;

int MillisecondsUntil(Clock::time_point end) {
    const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
    return static_cast<int>(std::max<milliseconds::rep>(left.count(), 0));
}

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

pid_t Fork(pid_t wanted) {
    if (wanted == 0) {
        return fork();
    }
    clone_args how{};
    how.exit_signal = SIGCHLD;
    how.set_tid = reinterpret_cast<uint64_t>(&wanted);
    how.set_tid_size = 1;
    return static_cast<pid_t>(syscall(SYS_clone3, &how, sizeof(how)));
}

// In the child, where only system calls are safe. Raw ones for the identity: the library's would look for
// threads of the parent.
bool Prepare(const Launch& launch) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(static_cast<size_t>(launch.cpu.value_or(0)), &cpus);
    return (!launch.hasOwnSession || setsid() >= 0) && chdir(launch.directory.c_str()) == 0 &&
           (!launch.cpu || sched_setaffinity(0, sizeof(cpus), &cpus) == 0) &&
           (launch.output < 0 ||
            (dup2(launch.output, STDOUT_FILENO) >= 0 && dup2(launch.output, STDERR_FILENO) >= 0)) &&
           (launch.uid == 0 || (syscall(SYS_setgroups, 0, nullptr) == 0 &&
                                syscall(SYS_setresgid, launch.uid, launch.uid, launch.uid) == 0 &&
                                syscall(SYS_setresuid, launch.uid, launch.uid, launch.uid) == 0)) &&
           prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && pthread_sigmask(SIG_SETMASK, &signals, nullptr) == 0;
}

}  // namespace

bool Eventually(const std::function<bool()>& condition, milliseconds limit) {
    constexpr int kPauseMs = 5;
    const auto end = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() >= end) {
            return false;
        }
        poll(nullptr, 0, kPauseMs);
    }
    return true;
}

std::string ReadWholeFile(const std::string& path, std::streamoff from) {
    std::ifstream file(path);
    file.seekg(from);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// Replaced at once, so that nobody reads half of it.
void WriteWholeFile(const std::string& path, std::string_view text, mode_t mode) {
    const std::string fresh = path + ".new";
    std::ofstream(fresh) << text;
    chmod(fresh.c_str(), mode);
    std::filesystem::rename(fresh, path);
}

LogFile::LogFile(std::string path)
    : path_(std::move(path)),
      file_(open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644)),
      changes_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    inotify_add_watch(changes_.Get(), path_.c_str(), IN_MODIFY);
}

bool LogFile::Await(std::string_view text, milliseconds limit) {
    const auto end = Clock::now() + limit;
    while (true) {
        const std::string news = ReadWholeFile(path_, position_);
        const size_t found = news.find(text);
        if (found != std::string::npos) {
            position_ += static_cast<std::streamoff>(found + text.size());
            return true;
        }
        pollfd changed{changes_.Get(), POLLIN, 0};
        if (poll(&changed, 1, MillisecondsUntil(end)) <= 0) {
            return false;
        }
        std::array<char, 4096> events;
        while (read(changes_.Get(), events.data(), events.size()) > 0) {
        }
    }
}

Pipe::Pipe() {
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) == 0) {
        readEnd = Linux::UniqueFd(ends[0]);
        writeEnd = Linux::UniqueFd(ends[1]);
    }
}

void Pipe::Fill() const {
    const std::string block(4096, ' ');
    fcntl(writeEnd.Get(), F_SETFL, O_NONBLOCK);
    while (write(writeEnd.Get(), block.data(), block.size()) > 0) {
    }
    fcntl(writeEnd.Get(), F_SETFL, 0);
}

std::string Pipe::Text() {
    writeEnd = Linux::UniqueFd();
    std::string text(65536, '\0');
    const ssize_t count = read(readEnd.Get(), text.data(), text.size());
    text.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return text;
}

Process::Process(const Launch& launch) : name_(launch.arguments.front()) {
    const std::vector<char*> argv = Pointers(launch.arguments);
    Pipe executed;
    pid_ = Fork(launch.pid);
    if (pid_ == 0) {
        if (Prepare(launch)) {
            execv(launch.program.c_str(), argv.data());
        }
        constexpr char kFailed = 1;
        [[maybe_unused]] const ssize_t told = write(executed.writeEnd.Get(), &kFailed, 1);
        _exit(127);
    }
    // The pipe closes with the execution, so the new program runs when nothing was read.
    if (executed.Text().empty() && pid_ > 0) {
        pidfd_ = Linux::UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    }
}

Process::~Process() {
    if (pid_ > 0 && !waitStatus_) {
        kill(-pid_, SIGKILL);  // its children
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

std::vector<std::string> Process::Stat() const {
    const std::string stat = ReadWholeFile(ProcPath("stat"));
    std::istringstream fields(stat.substr(std::min(stat.rfind(')') + 1, stat.size())));
    return {std::istream_iterator<std::string>(fields), {}};
}

bool Process::AwaitState(char state) const {
    return Eventually([&] {
        const std::vector<std::string> stat = Stat();
        return !stat.empty() && stat[0][0] == state;
    });
}

int64_t Process::StartTime() const {
    constexpr size_t kField = 19;
    const std::vector<std::string> stat = Stat();
    return stat.size() > kField ? std::stoll(stat[kField]) : 0;
}

std::vector<pid_t> Process::Children() const {
    std::istringstream pids(ReadWholeFile(ProcPath(("task/" + std::to_string(pid_) + "/children").c_str())));
    return {std::istream_iterator<pid_t>(pids), {}};
}

std::chrono::nanoseconds Process::CpuTime() const {
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(pid_, &clock) != 0 || clock_gettime(clock, &time) != 0) {
        return {};
    }
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

double Process::CpuPercent(milliseconds stretch) const {
    const auto begin = Clock::now();
    const auto before = CpuTime();
    HasEnded(stretch);
    const std::chrono::duration<double> used = CpuTime() - before;
    const std::chrono::duration<double> passed = Clock::now() - begin;
    return 100 * used.count() / passed.count();
}

bool Process::StandsStill() const {
    HasEnded(milliseconds(10));  // one that counts as frozen may have a few instructions to go
    const auto before = CpuTime();
    HasEnded(milliseconds(300));
    return CpuTime() == before;
}

bool Process::Runs() const {
    return Eventually([this, before = CpuTime()] { return CpuTime() > before + milliseconds(1); });
}

std::string Process::Standing() const {
    std::vector<std::string> threads;
    std::error_code error;
    for (const auto& thread : std::filesystem::directory_iterator(ProcPath("task"), error)) {
        const std::string tid = thread.path().filename();
        const auto id = static_cast<pid_t>(std::stol(tid));
        threads.push_back(tid + " policy " + std::to_string(sched_getscheduler(id)) + " nice " +
                          std::to_string(getpriority(PRIO_PROCESS, static_cast<id_t>(id))) + "\n");
    }
    std::ranges::sort(threads);
    std::string standing = ReadWholeFile(ProcPath("cgroup"));
    for (const std::string& thread : threads) {
        standing += thread;
    }
    return standing;
}

size_t Process::Count(const char* kind) const {
    std::error_code error;
    const std::filesystem::directory_iterator all(ProcPath(kind), error);
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

size_t Process::ResidentKiB() const {
    const std::string status = ReadWholeFile(ProcPath("status"));
    const size_t at = status.find("VmRSS:");
    return at == std::string::npos ? 0
                                   : std::strtoul(status.c_str() + at + std::strlen("VmRSS:"), nullptr, 10);
}

void Process::Signal(int signal) const {
    syscall(SYS_pidfd_send_signal, pidfd_.Get(), signal, nullptr, 0);
}

bool Process::HasEnded(milliseconds limit) const {
    pollfd ended{pidfd_.Get(), POLLIN, 0};
    return poll(&ended, 1, static_cast<int>(limit.count())) > 0;
}

std::optional<int> Process::AwaitEnd(milliseconds limit) {
    int status = 0;
    if (!waitStatus_ && HasEnded(limit) && waitpid(pid_, &status, 0) == pid_) {
        waitStatus_ = status;
    }
    return waitStatus_;
}

int Process::AwaitExit(milliseconds limit) {
    const std::optional<int> status = AwaitEnd(limit);
    return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
}

}  // namespace KITE::Integration
