#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "demo/display.h"
#include "demo/unique_fd.h"

namespace KITE::Demo {

// Reads what is appended to a file, line by line. One thread.
class LogFollower {
  public:
    explicit LogFollower(const std::filesystem::path& path);

    // Hands out the lines that have become complete since.
    void Poll(const std::function<void(const std::string& line)>& take);

  private:
    UniqueFd file_;
    std::string partial_;
};

// What a log line says about one of the programs.
struct Remark {
    pid_t pid = 0;  // 0: the line names the uid
    uid_t uid = 0;
    Tone tone = Tone::kPlain;
    std::string what;
    std::string detail;
};

// Absent for a line that says nothing worth showing. Log lines are for show: no verdict rests on them.
std::optional<Remark> ReadRemark(const std::string& line);

}  // namespace KITE::Demo
