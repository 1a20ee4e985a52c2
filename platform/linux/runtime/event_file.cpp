#include "runtime/event_file.h"

#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

#include "runtime/line_file.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"
#include "time_service.h"

namespace KITE {

namespace {

std::string LineOf(std::string_view domain, std::string_view name, int32_t type,
                   const std::vector<EventField>& fields) {
    nlohmann::ordered_json event = {{"time", TimeServiceClient::GetInstance().GetWallTimeMs()},
                                    {"domain", domain},
                                    {"name", name},
                                    {"type", type}};
    for (const EventField& field : fields) {
        std::visit([&](const auto& value) { event.emplace(std::string(field.key), value); }, field.value);
    }
    return event.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

}  // namespace

int32_t Linux::RecordEvent(std::string_view domain, std::string_view name, int32_t type,
                           const std::vector<EventField>& fields) {
    std::string line = LineOf(domain, name, type, fields);
    const std::string path = GetSettings().stateDirectory + "/events.jsonl";
    const int32_t failure = AppendLines(path, line);
    line.pop_back();
    PLATFORM_LOGI("event %{public}s", line.c_str());
    if (failure != 0) {
        PLATFORM_LOGE("the event is not in %{public}s: %{public}s", path.c_str(), strerrordesc_np(failure));
    }
    return failure;
}

int32_t QuillRec::Write(std::string_view domain, std::string_view name, EventType type,
                        const std::vector<EventField>& fields) {
    return Linux::RecordEvent(domain, name, static_cast<int32_t>(type), fields);
}

}  // namespace KITE
