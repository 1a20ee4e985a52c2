#include "runtime/event_file.h"
#include "platform_fixture.h"
#include "system_event.h"

namespace KITE::Linux {

using EventFileTest = DirectoryTest;

TEST_F(EventFileTest, AnEventIsOneLineOfJson) {
    ASSERT_FALSE(RecordEvent("N", {{"PID", 5}, {"NAME", "a\n\xff"}, {"type", 9}}));
    ASSERT_EQ(QuillRec::Write("D", "M", QuillRec::EventType::kFault, {}), 0);
    std::vector<nlohmann::json> events = RecordedEvents();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_GT(events[0]["time"].get<int64_t>(), 1700000000000);
    events[0].erase("time");
    EXPECT_EQ(events[0], nlohmann::json::parse(
                             R"({"domain": "KITE", "name": "N", "type": 4, "PID": 5, "NAME": "a\n\ufffd"})"));
    EXPECT_EQ(events[1]["type"], 1);
}

TEST_F(EventFileTest, QueuedEventsComeBeforeTheNextOneAndAreWrittenWhenVeryManyWait) {
    QueueEvent("A", {});
    EXPECT_EQ(Get("events.jsonl"), "");
    ASSERT_FALSE(RecordEvent("B", {}));
    QueueEvent("C", {{"TEXT", std::string(4 << 20, 'x')}});
    EXPECT_GT(Get("events.jsonl").size(), size_t{4} << 20);
    QueueEvent("D", {});
    WriteQueuedEvents();
    std::string names;
    for (const nlohmann::json& event : RecordedEvents()) {
        names += event["name"].get<std::string>();
    }
    EXPECT_EQ(names, "ABCD");
}

TEST_F(EventFileTest, TheEventFileIsRotatedAndNeverReachedThroughALink) {
    const std::vector<EventItem> large{{"TEXT", std::string(3 << 20, 'x')}};
    for (int i = 0; i < 3; ++i) {
        ASSERT_FALSE(RecordEvent(std::to_string(i), large));
    }
    EXPECT_GT(Get("events.jsonl.1").size(), size_t{6} << 20);
    EXPECT_NE(Get("events.jsonl").find(R"("name":"2")"), std::string::npos);
    std::filesystem::remove(Path("events.jsonl"));
    Put("victim", "");
    std::filesystem::create_symlink(Path("victim"), Path("events.jsonl"));
    EXPECT_EQ(RecordEvent("N", {}), ErrorOf(ELOOP));
    std::filesystem::remove(Path("events.jsonl"));
    ASSERT_EQ(mkfifo(Path("events.jsonl").c_str(), 0600), 0);
    EXPECT_EQ(RecordEvent("N", {}), ErrorOf(ENXIO));
}

}  // namespace KITE::Linux
