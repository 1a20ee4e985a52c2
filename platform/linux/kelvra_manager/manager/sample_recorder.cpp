#include "kelvra_manager/manager/sample_recorder.h"

#include <nlohmann/json.hpp>

#include "base/rotated_file.h"
#include "runtime/platform_log.h"
#include "time_service.h"

namespace KITE::Linux::Sampling {

void SampleRecorder::Add(pid_t pid, int64_t startTime, const std::string& name, std::span<const Rule> rules,
                         const Readings& readings) {
    nlohmann::ordered_json line{{"time", TimeServiceClient::GetInstance().GetWallTimeMs()},
                                {"pid", pid},
                                {"start", startTime},
                                {"name", name}};
    for (const auto& [type, reading] : readings) {
        line[type->sampleKey] = reading.value;
    }
    for (const Rule& rule : rules) {
        const Kelvra::ResQuotaInfo& quota = rule.quota;
        line["quotas"][quota.resType].push_back({quota.resource, quota.duration});
    }
    lines_ += line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

void SampleRecorder::Write() {
    if (lines_.empty()) {
        return;
    }
    const std::error_code error = AppendLines(path_, lines_);
    if (error && error != error_) {
        PLATFORM_LOGE("samples cannot be recorded in %{public}s: %{public}s", path_.c_str(),
                      error.message().c_str());
    }
    error_ = error;
    lines_.clear();
}

}  // namespace KITE::Linux::Sampling
