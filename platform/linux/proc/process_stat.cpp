#include "proc/process_stat.h"

#include <array>
#include <string>

#include "base/text.h"
#include "proc/process_file.h"

namespace KITE::Linux {

namespace {

constexpr size_t kStatLimit = 4096;

// Numbers of fields, as proc(5) counts them.
enum Field : size_t {
    kState = 3,
    kParent,
    kProcessGroup,
    kSession,
    kFlags = 9,
    kUserTime = 14,
    kSystemTime,
    kStartTime = 22
};

Result<ProcessStat> ReadStat(const std::string& path) {
    const Result<std::string> text = ReadFile(path, kStatLimit);
    if (!text) {
        return MeansGone(text.Code()) ? ErrorOf(ESRCH) : text.Code();
    }
    const std::optional<ProcessStat> stat = ParseProcessStat(*text);
    return stat ? Result<ProcessStat>(*stat) : ErrorOf(EBADMSG);
}

}  // namespace

std::optional<ProcessStat> ParseProcessStat(std::string_view text) {
    // The command name in parentheses may hold blanks and parentheses of its own.
    const size_t nameEnd = text.rfind(") ");
    if (nameEnd == std::string_view::npos) {
        return std::nullopt;
    }
    text.remove_prefix(nameEnd + 2);
    const char state = text.empty() ? '\0' : text.front();
    std::array<std::optional<int64_t>, kStartTime + 1> numbers;
    for (size_t field = kState; field <= kStartTime; ++field) {
        const size_t end = text.find(' ');
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        numbers[field] = ParseDecimal(text.substr(0, end));
        text.remove_prefix(end + 1);
    }
    for (const size_t field : {kFlags, kUserTime, kSystemTime, kStartTime}) {
        if (numbers[field].value_or(-1) < 0) {
            return std::nullopt;
        }
    }
    // A process that is being collected has no parent, group and session any more.
    const auto pidOf = [&](size_t field) { return static_cast<pid_t>(numbers[field].value_or(0)); };
    return ProcessStat{.state = state,
                       .parent = pidOf(kParent),
                       .processGroup = pidOf(kProcessGroup),
                       .session = pidOf(kSession),
                       .flags = static_cast<uint32_t>(*numbers[kFlags]),
                       .cpuTicks = *numbers[kUserTime] + *numbers[kSystemTime],
                       .startTime = *numbers[kStartTime]};
}

Result<ProcessStat> ReadProcessStat(pid_t pid) {
    return ReadStat(ProcessFilePath(pid, "stat"));
}

Result<ProcessStat> ReadThreadStat(pid_t pid, pid_t tid) {
    return ReadStat(ProcessFilePath(pid, "task/" + std::to_string(tid) + "/stat"));
}

}  // namespace KITE::Linux
