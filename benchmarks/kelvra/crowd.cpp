#include "kelvra/crowd.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <stdexcept>

#include "descriptor_limit.h"

namespace KITE::Benchmarks {

namespace {

std::string RuleList(const std::string& type, const std::string& limit) {
    return '"' + type +
           R"(": [{"condition": [], "id": 1, "duration": 10, "action": "warning", "resource_quota": )" +
           limit + "}]";
}

}  // namespace

size_t ProcessCount() {
    const std::filesystem::directory_iterator entries("/proc");
    return static_cast<size_t>(std::count_if(begin(entries), end(entries), [](const auto& entry) {
        return std::isdigit(static_cast<unsigned char>(entry.path().filename().native().front())) != 0;
    }));
}

std::string WatchedName(size_t index) {
    return "watched_daemon_" + std::to_string(index);
}

std::string WatchedPolicy(size_t names) {
    const std::string rules = RuleList("mem", "1000000") + ", " + RuleList("cpu", "90") + ", " +
                              RuleList("cpu_ext", "90") + ", " + RuleList("io", "1000000000");
    std::string elements;
    for (size_t i = 0; i < names; ++i) {
        elements += (elements.empty() ? "" : ",\n") + std::string(R"({"process_name": ")") + WatchedName(i) +
                    R"(", "inherit": "", "process_quotas": {)" + rules + "}}";
    }
    return elements;
}

void Crowd::GrowTo(size_t processes) {
    RaiseDescriptorLimit();
    for (size_t count = ProcessCount(); count < processes || members_.size() < watched_; ++count) {
        const size_t index = members_.size();
        const std::string name = index < watched_ ? WatchedName(index) : "other_" + std::to_string(index);
        members_.emplace_back(Integration::Launch{.program = "/bin/sleep", .arguments = {name, "1000000"}});
        if (members_.back().StartError()) {
            throw std::runtime_error("only " + std::to_string(index) + " processes could be started");
        }
    }
}

}  // namespace KITE::Benchmarks
