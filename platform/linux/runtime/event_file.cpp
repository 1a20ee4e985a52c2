#include "runtime/event_file.h"

#include <algorithm>
#include <mutex>
#include <nlohmann/json.hpp>

#include "base/event_names.h"
#include "base/file_names.h"
#include "base/immortal.h"
#include "base/rotated_file.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"
#include "system_event.h"
#include "time_service.h"

namespace KITE {

namespace Linux {

namespace {

// Well below the size at which the file is rotated, so that it keeps its bound however much has come.
constexpr size_t kMostQueuedBytes = size_t{4} << 20;

// What the platform saw or did, as opposed to a fault of what it watches.
constexpr int32_t kBehaviourEvent = 4;

// An item is an EventItem or an EventField.
template <typename Item>
std::string LineOf(std::string_view domain, std::string_view name, int32_t type,
                   const std::vector<Item>& items) {
    const int64_t now = TimeServiceClient::GetInstance().GetWallTimeMs();
    nlohmann::ordered_json line = {{"time", now}, {"domain", domain}, {"name", name}, {"type", type}};
    for (const Item& item : items) {
        std::visit([&](const auto& value) { line.emplace(std::string(item.key), value); }, item.value);
    }
    if (GetSettings().isDryRun) {
        line["DRY_RUN"] = true;
    }
    return line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

// The way of events into the file, which has them in the order in which they came here.
struct EventFile {
    std::mutex writing;     // held while the file is written
    std::mutex queueMutex;  // guards the queue; not held while the file is written
    std::string queue;      // lines
};

EventFile& TheFile() {
    static Immortal<EventFile> file;
    return file.value;
}

// Writes what is queued, and then the line.
std::error_code Write(std::string_view line) {
    const std::lock_guard writing(TheFile().writing);
    std::string lines;
    {
        const std::lock_guard lock(TheFile().queueMutex);
        lines.swap(TheFile().queue);
    }
    lines += line;
    const std::string path = GetSettings().stateDirectory + FileName::kEvents;
    const std::error_code error = lines.empty() ? std::error_code() : AppendLines(path, lines);
    if (error) {
        const auto count = static_cast<long>(std::ranges::count(lines, '\n'));
        PLATFORM_LOGE("%{public}ld events are lost, %{public}s cannot be written: %{public}s", count,
                      path.c_str(), error.message().c_str());
    }
    return error;
}

std::error_code Record(std::string line) {
    const std::error_code error = Write(line);
    line.pop_back();
    PLATFORM_LOGI("event %{public}s", line.c_str());
    return error;
}

}  // namespace

std::error_code RecordEvent(std::string_view name, const std::vector<EventItem>& items) {
    return Record(LineOf(EventName::kDomain, name, kBehaviourEvent, items));
}

void QueueEvent(std::string_view name, const std::vector<EventItem>& items) {
    const std::string line = LineOf(EventName::kDomain, name, kBehaviourEvent, items);
    std::unique_lock lock(TheFile().queueMutex);
    TheFile().queue += line;
    const bool isFull = TheFile().queue.size() >= kMostQueuedBytes;
    lock.unlock();
    if (isFull) {
        WriteQueuedEvents();
    }
}

void WriteQueuedEvents() {
    static_cast<void>(Write(""));
}

}  // namespace Linux

int32_t QuillRec::Write(std::string_view domain, std::string_view name, EventType type,
                        const std::vector<EventField>& fields) {
    return Linux::Record(Linux::LineOf(domain, name, static_cast<int32_t>(type), fields)).value();
}

}  // namespace KITE
