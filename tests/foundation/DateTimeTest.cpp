#include <basalt/DateTime.h>
#include <basalt/Exception.h>
#include <gtest/gtest.h>

#include <chrono>

namespace {

using Basalt::System::DateTime;
using Basalt::System::DateTimeFromUtc;

constexpr int64_t kSecond = 1000000;

struct ParseCase {
    const char* text;
    int64_t micros;  // expected microseconds since the epoch
};

TEST(DateTimeTest, ParsesXmlSchemaForms) {
    const ParseCase cases[] = {
        {"1970-01-01T00:00:00Z", 0},
        {"1970-01-01T00:00:00", 0},  // no zone means UTC
        {"2024-01-05T03:04:05.006Z", 1704423845006000},
        {"2024-01-05T03:04:05.0060071234Z", 1704423845006007},  // truncated past micros
        {"2024-01-05T03:04:05.1Z", 1704423845100000},
        {"2024-01-05T05:04:05+02:00", 1704423845000000},
        {"2024-01-04T22:34:05-04:30", 1704423845000000},
        {"2024-01-05T03:04:05+00:00", 1704423845000000},
        {"2024-01-05T03:04:05-14:00", 1704423845000000 + 14 * 3600 * kSecond},
        {"2024-02-29T12:00:00Z", 1709208000000000},  // leap year
        {"2000-02-29T00:00:00Z", 951782400000000},   // divisible by 400
        {"1969-12-31T23:59:59.999999Z", -1},
        {"2023-12-31T24:00:00Z", 1704067200000000},  // end of day is next midnight
        {"0001-01-01T00:00:00Z", -62135596800 * kSecond},
        {"9999-12-31T23:59:59Z", 253402300799 * kSecond},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(DateTime(c.text).GetUtcTime(), c.micros) << c.text;
    }
}

TEST(DateTimeTest, RejectsInvalidTexts) {
    const char* invalid[] = {
        "",
        "2024-01-05",             // date only
        "2024-01-05 03:04:05Z",   // blank instead of T
        " 2024-01-05T03:04:05Z",  // white space
        "2024-01-05T03:04:05Z ",
        "24-01-05T03:04:05Z",     // two-digit year
        "-2024-01-05T03:04:05Z",  // negative year
        "0000-01-01T00:00:00Z",   // no year zero
        "2024-13-01T00:00:00Z",
        "2024-00-01T00:00:00Z",
        "2023-02-29T00:00:00Z",  // not a leap year
        "1900-02-29T00:00:00Z",  // century, not a leap year
        "2024-04-31T00:00:00Z",
        "2024-01-05T25:00:00Z",
        "2024-01-05T24:00:01Z",  // only 24:00:00 is allowed
        "2024-01-05T23:60:00Z",
        "2024-01-05T23:59:60Z",   // no leap seconds
        "2024-01-05T03:04:05.Z",  // empty fraction
        "2024-01-05T03:04:05,5Z",
        "2024-01-05T03:04:05z",
        "2024-01-05T03:04:05+0200",
        "2024-01-05T03:04:05+14:01",
        "2024-01-05T03:04:05+02:60",
        "2024-01-05T03:04:05ZZ",
        "2024-1-05T03:04:05Z",
    };
    for (const char* text : invalid) {
        EXPECT_THROW(DateTime{std::string(text)}, Basalt::DateTimeFormatException) << text;
    }
    EXPECT_THROW(DateTime(std::string("2024-01-05T03:04:05Z\0", 21)),
                 Basalt::DateTimeFormatException);
}

TEST(DateTimeTest, FormatsRoundTrip) {
    DateTime value("2024-01-05T03:04:05.006007Z");
    EXPECT_EQ(value.ToString(), "2024-01-05T03:04:05.006007Z");
    EXPECT_EQ(value.ToShortStringBias(), "2024-01-05T03:04:05Z");
    EXPECT_EQ(DateTime(value.ToString()), value);
    for (int64_t micros :
         {int64_t{0}, int64_t{-1}, int64_t{951868799999999}, int64_t{4102444800000001}}) {
        DateTime t = DateTimeFromUtc(micros, false);
        EXPECT_EQ(DateTime(t.ToString()).GetUtcTime(), micros) << t.ToString();
    }
    EXPECT_EQ(DateTimeFromUtc(-1, false).ToString(), "1969-12-31T23:59:59.999999Z");
}

TEST(DateTimeTest, FieldsAndArithmeticAgree) {
    auto fields = DateTime("2024-02-29T23:59:59.5Z").GetFields();
    EXPECT_EQ(fields.year, 2024);
    EXPECT_EQ(fields.month, 2);
    EXPECT_EQ(fields.day, 29);
    EXPECT_EQ(fields.hour, 23);
    EXPECT_EQ(fields.second, 59);
    EXPECT_EQ(fields.microsecond, 500000);
    DateTime next =
        DateTimeFromUtc(DateTime("2024-02-29T23:59:59.5Z").GetUtcTime() + kSecond / 2, false);
    EXPECT_EQ(next.ToShortStringBias(), "2024-03-01T00:00:00Z");
    EXPECT_EQ(Basalt::System::DateTimeFromFields(fields), DateTime("2024-02-29T23:59:59.5Z"));
    EXPECT_THROW(DateTimeFromUtc(0, true), Basalt::InvalidArgumentException);
}

TEST(DateTimeTest, NowIsTheSystemClock) {
    using namespace std::chrono;
    int64_t before = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    int64_t now = Basalt::System::GetUtcDateTime().GetUtcTime();
    int64_t after = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

}  // namespace
