#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "base/result.h"
#include "integration/process.h"
#include "runtime/settings.h"

namespace KITE::Linux {

using namespace std::chrono_literals;
using Integration::Eventually;
using Integration::kPatience;
using Integration::Process;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// A directory of its own for each test, as both the etc and the state directory.
class DirectoryTest : public testing::Test {
  protected:
    DirectoryTest() {
        SetSettings({.etcDirectory = directory_, .stateDirectory = directory_, .logsToStandardError = true});
    }
    ~DirectoryTest() override { std::filesystem::remove_all(directory_); }

    std::string Path(const std::string& name) const { return directory_ / name; }
    void Put(const std::string& name, std::string_view text) const {
        std::ofstream(Path(name), std::ios::trunc) << text;
    }
    std::string Get(const std::string& name) const { return Integration::ReadWholeFile(Path(name)); }
    std::vector<nlohmann::json> RecordedEvents() const {
        std::vector<nlohmann::json> events;
        std::ifstream file(Path("events.jsonl"));
        for (std::string line; std::getline(file, line);) {
            events.push_back(nlohmann::json::parse(line));
        }
        return events;
    }

    const std::filesystem::path directory_ = [] {
        std::string name = testing::TempDir() + "kite_XXXXXX";
        return std::string(mkdtemp(name.data()));
    }();
};

// What can be read until the end, or without waiting where the descriptor does not wait.
inline std::string ReadAll(int fd) {
    std::string text;
    char piece[65536];
    for (ssize_t n = 0; (n = read(fd, piece, sizeof(piece))) > 0;) {
        text.append(piece, static_cast<size_t>(n));
    }
    return text;
}

inline size_t CountOf(std::string_view what, std::string_view text) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string_view::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
}

// A kite_target on the first processor.
struct Program : Process {
    explicit Program(std::vector<std::string> arguments, bool ownSession = true)
        : Process({.program = KITE_TARGET,
                   .arguments = std::move(arguments),
                   .cpu = 0,
                   .blockedSignal = SIGUSR1,
                   .hasOwnSession = ownSession}) {}
};

// As long as it exists, this process opens no descriptor of that number or above.
class DescriptorLimit {
  public:
    explicit DescriptorLimit(rlim_t limit) {
        // UndefinedBehaviorSanitizer opens a pipe to look at an object's type for the first time, and takes a
        // pipe that it does not get for a fault. So the errors that will be met are looked at before.
        const std::error_code before = ErrorOf(EMFILE);
        static_cast<void>(before == ErrorOf(ENFILE) || before.message().empty());
        getrlimit(RLIMIT_NOFILE, &usual_);
        const rlimit few{limit, usual_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
    }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &usual_); }

  private:
    rlimit usual_{};
};

}  // namespace KITE::Linux
