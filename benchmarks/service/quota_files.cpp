#include "quota_files.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "process_quotas.h"

namespace KITE::Benchmarks {

namespace {

using nlohmann::json;

constexpr int kIndent = 2;

std::string ProcessName(size_t number) {
    std::array<char, 32> name{};
    std::snprintf(name.data(), name.size(), "service_%06zu", number);
    return name.data();
}

json Rule(size_t number) {
    constexpr std::array<const char*, 3> kActions{"warning", "freeze", "kill"};
    constexpr std::array<const char*, 2> kConditions{"background&screen_off", "foreground"};
    return {{"condition", json::array({kConditions[number % kConditions.size()]})},
            {"id", number},
            {"resource_quota", 1048576 + number},
            {"duration", 10 + number % 50},
            {"action", kActions[number % kActions.size()]}};
}

// Children come before their parents in the order of names: the longer way to resolve them.
json Process(size_t number, const PolicyShape& shape) {
    const bool hasParent = (number + 1) % shape.chain != 0 && number + 1 < shape.processes;
    json quotas = json::object();
    for (size_t type = 0; type < shape.resourceTypes; ++type) {
        json& rules = quotas[std::string(
            ResourceQuotaCtl::kResourceTypes[(number + type) % ResourceQuotaCtl::kResourceTypes.size()])];
        for (size_t rule = 0; rule < shape.rules; ++rule) {
            rules.push_back(Rule((number * shape.resourceTypes + type) * shape.rules + rule));
        }
    }
    return {{"process_name", ProcessName(number)},
            {"inherit", hasParent ? ProcessName(number + 1) : ""},
            {"process_quotas", std::move(quotas)}};
}

}  // namespace

std::string QuotaText(const PolicyShape& shape) {
    json processes = json::array();
    for (size_t number = 0; number < shape.processes; ++number) {
        processes.push_back(Process(number, shape));
    }
    return json{{"quotas", std::move(processes)}}.dump(kIndent);
}

QuotaLayer::QuotaLayer(const std::string& text)
    : directory_(std::filesystem::temp_directory_path() / "quota_layer_XXXXXX") {
    if (mkdtemp(directory_.data()) == nullptr) {
        throw std::runtime_error("no folder for the quota file");
    }
    const auto file = QuotaFileBelow(directory_);
    std::filesystem::create_directories(file.parent_path());
    if (!(std::ofstream(file) << text << std::flush)) {
        throw std::runtime_error("the quota file could not be written");
    }
}

QuotaLayer::~QuotaLayer() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::filesystem::path QuotaFileBelow(const std::string& directory) {
    return std::filesystem::path(directory) / "etc/efficiency_manager/process_resource_limit.json";
}

}  // namespace KITE::Benchmarks
