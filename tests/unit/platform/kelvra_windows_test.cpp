#include <limits>

#include "kelvra_fixture.h"

// When a quota is broken: readings over time.
namespace KITE::Linux::Sampling {
namespace {

using testing::IsEmpty, testing::Optional, testing::SizeIs;

// None without a value.
std::optional<Reading> At(double second, std::optional<int64_t> value, double lateBy = 0) {
    return value ? std::optional<Reading>({Second(second), Second(second + lateBy), *value}) : std::nullopt;
}

struct Step {
    double second;
    std::optional<int64_t> value;  // none: it could not be read
    std::optional<int64_t> breach = std::nullopt;
    double lateBy = 0;
};

Rule RuleOf(std::string_view type, int64_t quota, std::chrono::seconds duration) {
    return {FindResourceType(type), duration, Quota("foo", std::string(type), quota, duration.count())};
}

TEST(Window, BreaksWhenAnAmountStayedAboveTheQuotaOrACounterGrewByMoreInTheLastDuration) {
    constexpr int64_t s = kSecond;
    const struct {
        const char* name;
        Rule rule;
        std::vector<Step> readings;
    } cases[] = {
        {"every reading of the duration above", RuleOf("mem", 100, 2s), {{0, 101}, {1, 500}, {2, 101, 101}}},
        {"one in between not above, one not read",
         RuleOf("mem", 100, 1s),
         {{0, 101}, {1, 100}, {2, 101}, {2, {}}, {3, 101}, {4, 101, 101}}},
        {"no duration", RuleOf("mem", 100, 0s), {{0, 101, 101}, {1, 100}}},
        {"above by the smallest share", RuleOf("cpu", 50, 1s), {{0, 0}, {1, s / 2}, {2, s + 1, 51}}},
        {"of the time that really passed",
         RuleOf("cpu", 150, 1s),
         {{0, 0}, {1, 2 * s, {}, 0.5}, {2, 4 * s, 200, 0.5}}},
        {"only when a full duration has been seen, and then of the last one",
         RuleOf("io", 1000, 3s),
         {{0, 0}, {1, 5000}, {2, 5000}, {3, 5000, 5000}, {4, 6000}, {5, 6001, 1001}}},
        {"a longer time counts for its share", RuleOf("io", 1000, 1s), {{0, 0}, {4, 4000}, {8, 8400, 1100}}},
        {"a counter that went back begins anew",
         RuleOf("io", 1000, 2s),
         {{0, 5000}, {1, 0}, {2, 7000}, {3, 7000, 7000}}}};
    for (const auto& [name, rule, readings] : cases) {
        Window window(rule);
        for (const auto& [second, value, breach, lateBy] : readings) {
            EXPECT_EQ(window.Add(At(second, value, lateBy)), breach) << name << ", second " << second;
        }
    }
}

TEST(Window, KeepsFewReadingsWhenItIsLongAndIsStillJudgedOverItsLastDuration) {
    const Rule rule = RuleOf("io", 3599, 3600s);
    Window window(rule);
    for (int second = 0; second < 3600; ++second) {
        ASSERT_EQ(window.Add(At(second, second)), std::nullopt);
    }
    EXPECT_THAT(window.Add(At(3600, 3600)), Optional(3600));
    for (int second = 3630; second <= 7200; second += 30) {
        EXPECT_LE(window.KeptReadings(), 122U);
        ASSERT_EQ(window.Add(At(second, second - 30)), std::nullopt);
    }
    // Readings are kept every 30 s: the base may be that much older, and the growth is scaled for it.
    EXPECT_THAT(window.Add(At(7215, 7215)), Optional(3600));
}

TEST(Windows, EachRuleIsReportedByItsOwnMeasureOnceForEachWindow) {
    using Ids = std::vector<int32_t>;
    const auto mem = [](int64_t quota, int64_t duration, int32_t id) {
        return Quota("foo", "mem", quota, duration, id);
    };
    const struct {
        const char* name;
        std::vector<Kelvra::ResQuotaInfo> quotas;
        std::vector<Ids> taken;
        int heldBack = -1;  // the second in which io is
        int unread = -1;    // the one in which memory could not be read
    } cases[] = {{"each resource type by its own measure",
                  {mem(999, 1, 1), Quota("foo", "cpu", 99, 1, 2), Quota("foo", "cpu_ext", 99, 1, 3),
                   Quota("foo", "io", 999, 1, 4), mem(1000, 1, 5), Quota("foo", "io", 1000, 1, 6)},
                  {{}, {1, 2, 3, 4}}},
                 {"a report starts the window anew and a held back one does not",
                  {mem(0, 2, 1), Quota("foo", "io", 0, 2, 2)},
                  {{}, {}, {1}, {2}, {1}, {2}},
                  2},
                 {"what could not be read is not above", {mem(0, 2, 1)}, {{}, {}, {}, {}, {1}}, -1, 1},
                 {"several rules in turn", {mem(0, 0, 1), mem(10, 0, 2)}, {{1}, {2}, {1}, {2}}}};
    for (const auto& [name, quotas, expected, heldBack, unread] : cases) {
        const RuleBook book(quotas);
        ProcessWindows windows(book.RulesFor("foo"));
        for (int second = 0; second < static_cast<int>(expected.size()); ++second) {
            Readings readings{{FindResourceType("cpu"), *At(second, second * kSecond)},
                              {FindResourceType("cpu_ext"), *At(second, second * kSecond)},
                              {FindResourceType("io"), *At(second, second * 1000)}};
            if (second != unread) {
                readings[FindResourceType("mem")] = *At(second, 1000);
            }
            windows.Add(readings);
            Ids taken;
            for (const Breach& breach : windows.TakeBreaches([&, held = heldBack](const ResourceType& type) {
                     return second == held && type.name == "io";
                 })) {
                taken.push_back(breach.rule->quota.id);
            }
            EXPECT_EQ(taken, expected[static_cast<size_t>(second)]) << name << ", second " << second;
        }
    }
}

TEST(RuleBook, LeavesOutOnlyWhatCanNeverApply) {
    const RuleBook book({Quota("foo", "memory", 1, 1), Quota("/bin/foo", "mem", 1, 1),
                         Quota("foo", "cpu", 1, -5),
                         Quota("foo", "io", 1, std::numeric_limits<int64_t>::max())});
    ASSERT_THAT(book.RulesFor("foo"), SizeIs(2));
    EXPECT_EQ(book.RulesFor("foo")[0].duration, 0s);
    EXPECT_GT(book.RulesFor("foo")[1].duration, 0s);
    EXPECT_THAT(book.RulesFor("/bin/foo"), IsEmpty());
    EXPECT_THAT(book.RulesFor("fo"), IsEmpty());
}

}  // namespace
}  // namespace KITE::Linux::Sampling
