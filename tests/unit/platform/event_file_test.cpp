#include <nlohmann/json.hpp>
#include <sstream>

#include "platform_fixture.h"
#include "runtime/event_file.h"
#include "system_event.h"

namespace KITE::Linux {

using EventFileTest = DirectoryTest;

TEST_F(EventFileTest, AnEventIsOneLineOfJson) {
    ASSERT_FALSE(RecordEvent("N", {{"PID", 5}, {"NAME", "a\n\xff"}, {"type", 9}}));
    ASSERT_EQ(QuillRec::Write("D", "M", QuillRec::EventType::kFault, {}), 0);
    std::istringstream lines(Get("events.jsonl"));
    nlohmann::json event;
    nlohmann::json second;
    lines >> event >> second >> std::ws;
    EXPECT_TRUE(lines.eof());
    EXPECT_GT(event["time"].get<int64_t>(), 1700000000000);
    event.erase("time");
    EXPECT_EQ(event, nlohmann::json::parse(
                         R"({"domain": "KITE", "name": "N", "type": 4, "PID": 5, "NAME": "a\n\ufffd"})"));
    EXPECT_EQ(second["type"], 1);
}

TEST_F(EventFileTest, QueuedEventsComeBeforeTheNextOneAndAreWrittenWhenVeryManyWait) {
    QueueEvent("A", {});
    EXPECT_EQ(Get("events.jsonl"), "");
    ASSERT_FALSE(RecordEvent("B", {}));
    QueueEvent("C", {{"TEXT", std::string(4 << 20, 'x')}});
    EXPECT_GT(Get("events.jsonl").size(), size_t{4} << 20);
    QueueEvent("D", {});
    WriteQueuedEvents();
    const std::string text = Get("events.jsonl");
    std::string names;
    for (size_t at = 0; (at = text.find("\"name\":\"", at)) != text.npos; ++at) {
        names += text[at + 8];
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
