#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kelvra_manager_client.h"
#include "parcel.h"
#include "singleton.h"
#include "string_utils.h"

namespace KITE {

namespace {

TEST(ParcelTest, GivesBackWhatWasWrittenAndNothingMore) {
    MessageParcel parcel;
    parcel.WriteInterfaceToken(u"odd");
    parcel.WriteString("abcde");
    parcel.WriteBool(true);
    parcel.WriteInt64(-5);
    parcel.WriteUInt64Vector({1, ~uint64_t{0}});
    parcel.WriteUInt32Vector({});
    EXPECT_EQ(parcel.Bytes().size() % 4, 0U);
    MessageParcel copy(std::vector<std::byte>(parcel.Bytes().begin(), parcel.Bytes().end()));
    EXPECT_EQ(copy.ReadInterfaceToken(), u"odd");
    std::string text;
    bool flag = false;
    int64_t number = 0;
    std::vector<uint64_t> numbers;
    std::vector<uint32_t> none{1};
    EXPECT_TRUE(copy.ReadString(text) && copy.ReadBool(flag) && copy.ReadInt64(number) &&
                copy.ReadUInt64Vector(&numbers) && copy.ReadUInt32Vector(&none));
    EXPECT_EQ(std::tuple(text, flag, number, numbers, none.size()),
              std::tuple("abcde", true, -5, std::vector{uint64_t{1}, ~uint64_t{0}}, 0U));
    EXPECT_FALSE(copy.ReadBool(flag));
    EXPECT_EQ(copy.ReadInterfaceToken(), u"");
}

// The record as it is read from what was written; cut anywhere, that cannot be read.
template <typename Record>
Record ThereAndBack(const Record& record) {
    Parcel parcel;
    EXPECT_TRUE(record.Marshalling(parcel));
    for (auto end = parcel.Bytes().begin(); end != parcel.Bytes().end(); ++end) {
        Parcel cut(std::vector<std::byte>(parcel.Bytes().begin(), end));
        EXPECT_FALSE(Record().ReadFromParcel(cut));
    }
    Record read;
    EXPECT_TRUE(read.ReadFromParcel(parcel));
    return read;
}

TEST(ParcelTest, ARecordTravelsWholeOrNotAtAll) {
    Kelvra::ResQuotaInfo quota;
    Kelvra::ProcessAnomalyInfo report;
    const auto fields = [](auto& of) {
        return std::tie(of.duration, of.resource, of.id, of.processType, of.action, of.processName,
                        of.resType, of.conditions);
    };
    fields(quota) = fields(report) = std::tuple(1, -2, 3, 4, "kill", "p", "cpu", std::vector{5U, 6U});
    report.startTime = 7;
    const auto quotaRead = ThereAndBack(quota);
    const auto reportRead = ThereAndBack(report);
    EXPECT_EQ(fields(quotaRead), fields(quota));
    EXPECT_EQ(fields(reportRead), fields(report));
    EXPECT_EQ(reportRead.startTime, 7);
}

TEST(ParcelTest, ALyingFieldLeavesEverythingAsItWas) {
    for (const uint32_t count : {2U, 0x3FFFFFFFU, 0x40000000U, 0xFFFFFFFFU}) {
        Parcel lying;
        lying.WriteUint32(count);
        lying.WriteInt32(7);
        std::vector<int32_t> values{9};
        std::string text = "kept";
        std::u16string wide;
        EXPECT_FALSE(lying.ReadInt32Vector(&values));
        EXPECT_EQ(lying.ReadString(text), count == 2) << "two bytes and their padding are there";
        EXPECT_THAT(values, testing::ElementsAre(9));
        EXPECT_FALSE(count != 2 && lying.ReadString16(wide));
        EXPECT_EQ(lying.ReadableBytes(), count == 2 ? 0U : 8U);
    }
}

TEST(ParcelTest, GrowsToItsLimitAndNoFurther) {
    Parcel parcel;
    EXPECT_FALSE(parcel.WriteString(std::string(Parcel::kMaxSize - 3, 'x')));
    EXPECT_EQ(parcel.Bytes().size(), 0U);
    EXPECT_TRUE(parcel.WriteString(std::string(Parcel::kMaxSize - 4, 'x')));
    EXPECT_FALSE(parcel.WriteInt32(1));
    Parcel foreign(std::vector<std::byte>(Parcel::kMaxSize + 4));
    EXPECT_FALSE(foreign.WriteInt32(1));
}

TEST(ReferenceTest, TheLastReferenceDeletesAndCopiesOfTheObjectHaveNone) {
    static int destroyed = 0;
    struct Counted : RefBase {
        ~Counted() override { ++destroyed; }
    };
    {
        auto first = MakeSptr<Counted>();
        sptr<RefBase> second = first;
        Counted copy(*first);
        EXPECT_EQ(copy.StrongRefCount(), 0);
        EXPECT_EQ(first->StrongRefCount(), 2);
        first = nullptr;
        second = std::move(second);
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 2);
}

TEST(StringTest, ConvertsBothWaysAndReplacesWhatIsBroken) {
    const std::u16string wide = u"aé€😀";
    EXPECT_EQ(Str16ToStr8(wide), "aé€😀");
    EXPECT_EQ(Str8ToStr16("aé€😀"), wide);
    EXPECT_EQ(Str16ToStr8(std::u16string{u'a', char16_t{0xD800}, u'b', char16_t{0xDC00}}), "a\uFFFDb\uFFFD");
    EXPECT_EQ(Str8ToStr16("\xC0\x80|\xED\xA0\x80|\xF5|\xE2\x82"),
              u"\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD|\uFFFD|\uFFFD\uFFFD");
}

}  // namespace

}  // namespace KITE
