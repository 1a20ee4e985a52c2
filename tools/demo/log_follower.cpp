#include "demo/log_follower.h"

#include <fcntl.h>

#include <array>
#include <charconv>
#include <string_view>

namespace KITE::Demo {

namespace {

// The text between the two labels, each the first of its kind; absent when one is not there.
std::optional<std::string_view> Between(std::string_view line, std::string_view before,
                                        std::string_view after) {
    const size_t label = line.find(before);
    if (label == std::string_view::npos) {
        return std::nullopt;
    }
    line.remove_prefix(label + before.size());
    const size_t end = line.find(after);
    return end == std::string_view::npos ? std::nullopt : std::optional(line.substr(0, end));
}

std::optional<int64_t> NumberBetween(std::string_view line, std::string_view before, std::string_view after) {
    const std::optional<std::string_view> text = Between(line, before, after);
    int64_t number = 0;
    const bool isNumber =
        text && std::from_chars(text->data(), text->data() + text->size(), number).ec == std::errc();
    return isNumber ? std::optional(number) : std::nullopt;
}

Remark AboutPid(int64_t pid, Tone tone, const char* what, std::string detail) {
    return {static_cast<pid_t>(pid), 0, tone, what, std::move(detail)};
}

// "66 % of a core, quota 10 %", and the like.
std::string BreachText(std::string_view resource, int64_t measured, int64_t quota) {
    constexpr int64_t kKiBPerMiB = 1024;
    constexpr int64_t kBytesPerMiB = int64_t{1} << 20;
    const auto text = [&](int64_t unit, const char* measuredUnit, const char* quotaUnit) {
        return std::to_string(measured / unit) + measuredUnit + ", quota " + std::to_string(quota / unit) +
               quotaUnit;
    };
    if (resource == "mem") {
        return text(kKiBPerMiB, " MiB", " MiB");
    }
    return resource == "io" ? text(kBytesPerMiB, " MiB written", " MiB") : text(1, " % of a core", " %");
}

std::optional<Remark> ReadBreach(const std::string& line) {
    const auto pid = NumberBetween(line, ", pid ", ",");
    const auto resource = Between(line, "breaks its ", " quota: ");
    const auto measured = NumberBetween(line, " quota: ", " measured");
    const auto quota = NumberBetween(line + "\n", "measured, quota ", "\n");
    if (!pid || !resource || !measured || !quota) {
        return std::nullopt;
    }
    return AboutPid(*pid, Tone::kWarning, "over quota", BreachText(*resource, *measured, *quota));
}

std::optional<Remark> ReadExemption(const std::string& line) {
    if (const auto pid = NumberBetween(line, "pid:", " has special continuous task")) {
        return AboutPid(*pid, Tone::kGood, "exempt", "the device state says it transfers data");
    }
    if (const auto uid = NumberBetween(line, "cancel suppress, ", " is in foreground")) {
        return Remark{0, static_cast<uid_t>(*uid), Tone::kGood, "exempt",
                      "the device state says it is in the foreground"};
    }
    return std::nullopt;
}

std::optional<Remark> ReadWarning(const std::string& line) {
    const auto pid = NumberBetween(line, "abnormal info pid is ", ",");
    const bool isExecuted = line.find("(ExecuteAbnormalProcess)") != std::string::npos;
    return pid && isExecuted
               ? std::optional(AboutPid(*pid, Tone::kWarning, "warned", "a line in the log, no more"))
               : std::nullopt;
}

}  // namespace

LogFollower::LogFollower(const std::filesystem::path& path)
    : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}

void LogFollower::Poll(const std::function<void(const std::string& line)>& take) {
    std::array<char, 4096> buffer;
    ssize_t count = 0;
    while ((count = read(file_.Get(), buffer.data(), buffer.size())) > 0) {
        partial_.append(buffer.data(), static_cast<size_t>(count));
    }
    for (size_t end = partial_.find('\n'); end != std::string::npos; end = partial_.find('\n')) {
        take(partial_.substr(0, end));
        partial_.erase(0, end + 1);
    }
}

std::optional<Remark> ReadRemark(const std::string& line) {
    for (const auto read : {ReadBreach, ReadExemption, ReadWarning}) {
        if (std::optional<Remark> remark = read(line)) {
            return remark;
        }
    }
    return std::nullopt;
}

}  // namespace KITE::Demo
