#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

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

    const std::filesystem::path directory_ = [] {
        std::string name = testing::TempDir() + "kite_XXXXXX";
        return std::string(mkdtemp(name.data()));
    }();
};

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
