#include "proc/process_stat.h"

#include <array>
#include <string>

#include "base/text.h"
#include "proc/process_file.h"

namespace KITE::Linux {

namespace {

constexpr uint32_t kKernelThreadFlag = 0x00200000;
constexpr size_t kStatLimit = 4096;

// Numbers of fields, as proc(5) counts them.
constexpr size_t kStateField = 3;
constexpr size_t kParentField = 4;
constexpr size_t kProcessGroupField = 5;
constexpr size_t kSessionField = 6;
constexpr size_t kFlagsField = 9;
constexpr size_t kUserTimeField = 14;
constexpr size_t kSystemTimeField = 15;
constexpr size_t kStartTimeField = 22;

Result<ProcessStat> ReadStat(const std::string& path) {
    const Result<std::string> text = ReadFile(path, kStatLimit);
    if (!text) {
        return MeansGone(text.Code()) ? ErrorOf(ESRCH) : text.Code();
    }
    const std::optional<ProcessStat> stat = ParseProcessStat(*text);
    return stat ? Result<ProcessStat>(*stat) : ErrorOf(EBADMSG);
}

}  // namespace

bool ProcessStat::IsKernelThread() const {
    return (flags & kKernelThreadFlag) != 0;
}

std::optional<ProcessStat> ParseProcessStat(std::string_view text) {
    // The command name in parentheses may hold blanks and parentheses of its own.
    const size_t nameEnd = text.rfind(") ");
    if (nameEnd == std::string_view::npos) {
        return std::nullopt;
    }
    text.remove_prefix(nameEnd + 2);
    const char state = text.empty() ? '\0' : text.front();
    std::array<std::optional<int64_t>, kStartTimeField + 1> numbers;
    for (size_t field = kStateField; field <= kStartTimeField; ++field) {
        const size_t end = text.find(' ');
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        numbers[field] = ParseDecimal(text.substr(0, end));
        text.remove_prefix(end + 1);
    }
    for (const size_t field : {kFlagsField, kUserTimeField, kSystemTimeField, kStartTimeField}) {
        if (numbers[field].value_or(-1) < 0) {
            return std::nullopt;
        }
    }
    // A process that is being collected has no parent, group and session any more.
    const auto pidOf = [&](size_t field) { return static_cast<pid_t>(numbers[field].value_or(0)); };
    return ProcessStat{.state = state,
                       .parent = pidOf(kParentField),
                       .processGroup = pidOf(kProcessGroupField),
                       .session = pidOf(kSessionField),
                       .flags = static_cast<uint32_t>(*numbers[kFlagsField]),
                       .cpuTicks = *numbers[kUserTimeField] + *numbers[kSystemTimeField],
                       .startTime = *numbers[kStartTimeField]};
}

Result<ProcessStat> ReadProcessStat(pid_t pid) {
    return ReadStat(ProcessFilePath(pid, "stat"));
}

Result<ProcessStat> ReadThreadStat(pid_t pid, pid_t tid) {
    return ReadStat(ProcessFilePath(pid, "task/" + std::to_string(tid) + "/stat"));
}

}  // namespace KITE::Linux
