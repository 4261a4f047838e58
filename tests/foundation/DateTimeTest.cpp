#include <basalt/DateTime.h>
#include <basalt/Exception.h>
#include <gtest/gtest.h>

#include "support/ExpectThrow.h"

namespace {

using Basalt::System::DateTime;
using Basalt::System::DateTimeFromUtc;

constexpr int64_t kSecond = 1000000;

TEST(DateTimeTest, ParsesXmlSchemaForms) {
    const std::pair<const char*, int64_t> cases[] = {
        {"1970-01-01T00:00:00Z", 0},
        // No zone means UTC.
        {"1970-01-01T00:00:00", 0},
        {"2024-01-05T03:04:05.006Z", 1704423845006000},
        // Digits past microseconds are truncated.
        {"2024-01-05T03:04:05.0060071234Z", 1704423845006007},
        {"2024-01-05T03:04:05.1Z", 1704423845100000},
        {"2024-01-05T05:04:05+02:00", 1704423845000000},
        {"2024-01-04T22:34:05-04:30", 1704423845000000},
        {"2024-01-05T03:04:05+00:00", 1704423845000000},
        {"2024-01-05T03:04:05-14:00", 1704423845000000 + 14 * 3600 * kSecond},
        {"2024-02-29T12:00:00Z", 1709208000000000},
        {"2000-02-29T00:00:00Z", 951782400000000},
        {"1969-12-31T23:59:59.999999Z", -1},
        // End of day is the next midnight.
        {"2023-12-31T24:00:00Z", 1704067200000000},
        {"0001-01-01T00:00:00Z", -62135596800 * kSecond},
        {"9999-12-31T23:59:59Z", 253402300799 * kSecond},
    };
    for (const auto& [text, micros] : cases) {
        EXPECT_EQ(DateTime(text).GetUtcTime(), micros) << text;
    }
}

TEST(DateTimeTest, RejectsInvalidTexts) {
    // Date only or no seconds, blank for T, white space, two-digit/negative/zero year, month 13 and
    // 0, 29 February of a common year and of a century, 31 April, hour 25, only 24:00:00 allowed,
    // no leap seconds, empty or comma fraction, lower-case z, offsets without colon or beyond
    // 14:00, unpadded fields.
    const char* invalid[] = {
        "2024-01-05T03:04",          "2024-01-05 03:04:05Z",      " 2024-01-05T03:04:05Z",
        "2024-01-05T03:04:05Z ",     "24-01-05T03:04:05Z",        "-2024-01-05T03:04:05Z",
        "0000-01-01T00:00:00Z",      "2024-13-01T00:00:00Z",      "2024-00-01T00:00:00Z",
        "2023-02-29T00:00:00Z",      "1900-02-29T00:00:00Z",      "2024-04-31T00:00:00Z",
        "2024-01-05T25:00:00Z",      "2024-01-05T24:00:01Z",      "2024-01-05T24:00:00.5Z",
        "2024-01-05T23:60:00Z",      "2024-01-05T23:59:60Z",      "2024-01-05T03:04:05.Z",
        "2024-01-05T03:04:05,5Z",    "2024-01-05T03:04:05z",      "2024-01-05T03:04:05+0200",
        "2024-01-05T03:04:05+14:01", "2024-01-05T03:04:05+02:60", "2024-01-05T03:04:05ZZ",
        "2024-1-05T03:04:05Z",       "2024-01-05T03:04:05+02"};
    for (const std::string text : invalid) {
        EXPECT_TRUE(TestSupport::Throws<Basalt::DateTimeFormatException>(
            [&] { DateTime{text}; }, "Invalid date-time value: '" + text + "'"));
    }
    for (const std::string& text :
         {std::string(), std::string("2024-01-05"), std::string("2024-01-05T03:04:05Z\0", 21)}) {
        EXPECT_THROW(DateTime{text}, Basalt::DateTimeFormatException);
    }
}

// Round trips through the text form and through the fields, at the ends of the range and around
// the epoch, and the refusals of the other constructors.
TEST(DateTimeTest, FormatsFieldsAndArithmeticAgree) {
    EXPECT_EQ(DateTime("2024-01-05T03:04:05.006007Z").ToShortStringBias(), "2024-01-05T03:04:05Z");
    EXPECT_EQ(DateTimeFromUtc(-62135596800 * kSecond, false).ToString(),
              "0001-01-01T00:00:00.000000Z");
    for (int64_t micros : {int64_t{0}, int64_t{-1}, int64_t{951868799999999},
                           int64_t{4102444800000001}, int64_t{253402300799999999}}) {
        DateTime t = DateTimeFromUtc(micros, false);
        EXPECT_EQ(DateTime(t.ToString()).GetUtcTime(), micros) << t.ToString();
        EXPECT_EQ(Basalt::System::DateTimeFromFields(t.GetFields()), t) << t.ToString();
    }
    auto f = DateTime("2024-02-29T23:59:59.5Z").GetFields();
    EXPECT_EQ(std::vector<int>({f.year, f.month, f.day, f.hour, f.minute, f.second, f.microsecond}),
              std::vector<int>({2024, 2, 29, 23, 59, 59, 500000}));
    f.month = 13;
    EXPECT_TRUE(TestSupport::Throws<Basalt::DateTimeFormatException>(
        [&] { Basalt::System::DateTimeFromFields(f); }, "Date-time field out of range"));
    EXPECT_TRUE(TestSupport::Throws<Basalt::InvalidArgumentException>(
        [] { DateTimeFromUtc(0, true); }, "DateTimeFromUtc: local time is not supported"));
}

}  // namespace
