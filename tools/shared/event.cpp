#include "shared/event.h"

#include "base/event_names.h"
#include "shared/wording.h"

namespace KITE::Tools {

namespace {

namespace EventName = Linux::EventName;

int64_t NumberOf(const Linux::JsonNode& node) {
    return node.IsPresent() ? node.Number(INT64_MIN) : 0;
}

}  // namespace

bool Event::Is(std::string_view eventName) const {
    return domain == EventName::kDomain && name == eventName;
}

Event ReadEvent(const Linux::JsonNode& line) {
    for (const auto& [key, value] : line.Members()) {
        // It could be nested so deeply that copying or writing it overflows the stack.
        if (value.Value()->is_structured()) {
            value.Fail("must be a single value");
        }
    }
    Event event;
    event.time = line.Required("time").Number<int64_t>(0, kLatestMoment);
    event.domain = line.Required("domain").Text();
    event.name = line.Required("name").Text();
    event.pid = NumberOf(line.Optional("PID"));
    event.processName = line.Optional("PROCESS_NAME").Text();
    event.isDryRun = line.Optional("DRY_RUN").Bool(false);
    event.uid = NumberOf(line.Optional("UID"));
    event.resourceType = line.Optional("RESOURCE_TYPE").Text();
    event.ruleId = NumberOf(line.Optional("RULE_ID"));
    event.resource = NumberOf(line.Optional("RESOURCE"));
    event.duration = NumberOf(line.Optional("DURATION"));
    event.action = line.Optional("ACTION").Text();
    event.form = line.Optional("FORM").Text();
    event.reason = line.Optional("REASON").Text();
    event.result = NumberOf(line.Optional("RESULT"));
    if (const Linux::JsonNode uid = line.Optional("BY_UID"); uid.IsPresent()) {
        event.byUid = NumberOf(uid);
    }
    event.message = line.Optional("MSG").Text();
    return event;
}

}  // namespace KITE::Tools
