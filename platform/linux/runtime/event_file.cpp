#include "runtime/event_file.h"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "base/file_names.h"
#include "base/line_file.h"
#include "base/immortal.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"
#include "system_event.h"
#include "time_service.h"

namespace KITE {

namespace Linux {

namespace {

// Some 5 MiB.
constexpr size_t kMostQueued = 10'000;

std::string LineOf(const Event& event) {
    nlohmann::ordered_json line = {
        {"time", event.time}, {"domain", event.domain}, {"name", event.name}, {"type", event.type}};
    for (const EventItem& item : event.items) {
        std::visit([&](const auto& value) { line.emplace(std::string(item.key), value); }, item.value);
    }
    if (GetSettings().isDryRun) {
        line["DRY_RUN"] = true;
    }
    return line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

int32_t AppendOrComplain(std::string_view lines) {
    const std::string path = GetSettings().stateDirectory + FileName::kEvents;
    const std::error_code error = AppendLines(path, lines);
    if (error) {
        const auto count = static_cast<long>(std::ranges::count(lines, '\n'));
        PLATFORM_LOGE("%{public}ld events are not in %{public}s: %{public}s", count, path.c_str(),
                      error.message().c_str());
    }
    return error.value();
}

// The way of events into the file. Whoever writes, writes first what is queued: events stand in the file in
// the order in which they came here.
class EventWriter {
  public:
    static EventWriter& Instance() {
        static Immortal<EventWriter> writer;
        return writer.value;
    }

    int32_t Write(std::string_view line) {
        const std::lock_guard lock(writing_);
        WriteWhatWaits();
        return AppendOrComplain(line);
    }

    void Queue(std::vector<Event> events) {
        std::unique_lock lock(queueMutex_);
        queue_.insert(queue_.end(), std::make_move_iterator(events.begin()),
                      std::make_move_iterator(events.end()));
        const bool isFull = queue_.size() >= kMostQueued;
        lock.unlock();
        if (isFull) {
            WriteQueued();
        }
    }

    void WriteQueued() {
        const std::lock_guard lock(writing_);
        WriteWhatWaits();
    }

  private:
    void WriteWhatWaits();

    std::mutex writing_;     // of the file
    std::mutex queueMutex_;  // guards the queue; not held while the file is written
    std::vector<Event> queue_;
};

// In pieces, so that the file grows little beyond its bound however much has come.
void EventWriter::WriteWhatWaits() {
    constexpr size_t kPieceBytes = size_t{64} << 10;
    std::vector<Event> events;
    {
        const std::lock_guard lock(queueMutex_);
        events.swap(queue_);
    }
    std::string lines;
    for (const Event& event : events) {
        lines += LineOf(event);
        if (lines.size() >= kPieceBytes || &event == &events.back()) {
            static_cast<void>(AppendOrComplain(lines));
            lines.clear();
        }
    }
}

}  // namespace

Event::Event(std::string_view itsDomain, std::string_view itsName, int32_t itsType,
             std::vector<EventItem> itsItems)
    : time(TimeServiceClient::GetInstance().GetWallTimeMs()),
      domain(itsDomain),
      name(itsName),
      type(itsType),
      items(std::move(itsItems)) {}

int32_t RecordEvent(std::string_view domain, std::string_view name, int32_t type,
                    std::vector<EventItem> items) {
    std::string line = LineOf(Event(domain, name, type, std::move(items)));
    const int32_t failure = EventWriter::Instance().Write(line);
    line.pop_back();
    PLATFORM_LOGI("event %{public}s", line.c_str());
    return failure;
}

void QueueEvents(std::vector<Event> events) {
    EventWriter::Instance().Queue(std::move(events));
}

void WriteQueuedEvents() {
    EventWriter::Instance().WriteQueued();
}

}  // namespace Linux

int32_t QuillRec::Write(std::string_view domain, std::string_view name, EventType type,
                        const std::vector<EventField>& fields) {
    std::vector<Linux::EventItem> items;
    items.reserve(fields.size());
    for (const EventField& field : fields) {
        Linux::EventItem& item = items.emplace_back(Linux::EventItem{field.key, {}});
        std::visit([&](const auto& value) { item.value = value; }, field.value);
    }
    return Linux::RecordEvent(domain, name, static_cast<int32_t>(type), std::move(items));
}

}  // namespace KITE
