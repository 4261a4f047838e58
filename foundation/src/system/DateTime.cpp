#include <basalt/DateTime.h>

#include <chrono>
#include <cstdio>

#include <basalt/Exception.h>
#include "internal/system/Immortal.h"

namespace Basalt {
namespace System {

namespace {

constexpr int64_t kMicrosPerSecond = 1000000;
constexpr int64_t kMicrosPerDay = 86400 * kMicrosPerSecond;

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's algorithm).
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void CivilFromDays(int64_t z, int& year, int& month, int& day) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    year = static_cast<int>(static_cast<int64_t>(yoe) + era * 400 + (month <= 2));
}

bool IsLeapYear(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int DaysInMonth(int year, int month) {
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Reads the XML Schema lexical form one field at a time; any deviation is a format error.
class DateTimeScanner {
  public:
    explicit DateTimeScanner(std::string_view text) : m_text(text) {}

    int Digits(size_t count) {
        int value = 0;
        for (size_t i = 0; i < count; ++i) {
            value = value * 10 + Digit();
        }
        return value;
    }
    int Digit() {
        if (m_pos >= m_text.size() || m_text[m_pos] < '0' || m_text[m_pos] > '9') {
            Fail();
        }
        return m_text[m_pos++] - '0';
    }
    void Expect(char c) {
        if (!Accept(c)) {
            Fail();
        }
    }
    bool Accept(char c) {
        if (m_pos < m_text.size() && m_text[m_pos] == c) {
            ++m_pos;
            return true;
        }
        return false;
    }
    bool AtDigit() const {
        return m_pos < m_text.size() && m_text[m_pos] >= '0' && m_text[m_pos] <= '9';
    }
    bool AtEnd() const { return m_pos == m_text.size(); }
    [[noreturn]] void Fail() const {
        throw DateTimeFormatException("Invalid date-time value: '" + std::string(m_text) + "'");
    }

  private:
    std::string_view m_text;
    size_t m_pos = 0;
};

std::string FormatFields(const DateTimeFields& f, bool withMicros) {
    char text[40];
    if (withMicros) {
        std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06dZ", f.year, f.month,
                      f.day, f.hour, f.minute, f.second, f.microsecond);
    } else {
        std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", f.year, f.month, f.day,
                      f.hour, f.minute, f.second);
    }
    return text;
}

}  // namespace

DateTime::DateTime(std::string_view text) {
    DateTimeScanner in(text);
    DateTimeFields f;
    f.year = in.Digits(4);
    in.Expect('-');
    f.month = in.Digits(2);
    in.Expect('-');
    f.day = in.Digits(2);
    in.Expect('T');
    f.hour = in.Digits(2);
    in.Expect(':');
    f.minute = in.Digits(2);
    in.Expect(':');
    f.second = in.Digits(2);
    if (in.Accept('.')) {
        int scale = 100000;
        f.microsecond = in.Digit() * scale;  // at least one digit
        while (in.AtDigit()) {
            scale /= 10;
            f.microsecond += in.Digit() * scale;  // digits past microseconds add 0
        }
    }
    int64_t offsetMinutes = 0;
    if (!in.Accept('Z')) {
        int sign = in.Accept('+') ? 1 : (in.Accept('-') ? -1 : 0);
        if (sign != 0) {
            int hours = in.Digits(2);
            in.Expect(':');
            int minutes = in.Digits(2);
            if (minutes > 59 || hours * 60 + minutes > 14 * 60) {
                in.Fail();
            }
            offsetMinutes = sign * (hours * 60 + minutes);
        }
    }
    if (!in.AtEnd()) {
        in.Fail();
    }
    // 24:00:00 is the first instant of the following day.
    bool endOfDay = f.hour == 24 && f.minute == 0 && f.second == 0 && f.microsecond == 0;
    if (endOfDay) {
        f.hour = 0;
    }
    try {
        m_micros = DateTimeFromFields(f).m_micros;
    } catch (const DateTimeFormatException&) {
        in.Fail();
    }
    if (endOfDay) {
        m_micros += kMicrosPerDay;
    }
    m_micros -= offsetMinutes * 60 * kMicrosPerSecond;
}

DateTimeFields DateTime::GetFields() const {
    int64_t days = m_micros / kMicrosPerDay;
    int64_t rest = m_micros % kMicrosPerDay;
    if (rest < 0) {
        rest += kMicrosPerDay;
        --days;
    }
    DateTimeFields f;
    CivilFromDays(days, f.year, f.month, f.day);
    f.hour = static_cast<int>(rest / (3600 * kMicrosPerSecond));
    f.minute = static_cast<int>(rest / (60 * kMicrosPerSecond) % 60);
    f.second = static_cast<int>(rest / kMicrosPerSecond % 60);
    f.microsecond = static_cast<int>(rest % kMicrosPerSecond);
    return f;
}

std::string DateTime::ToString() const {
    return FormatFields(GetFields(), true);
}

std::string DateTime::ToShortStringBias() const {
    return FormatFields(GetFields(), false);
}

DateTime DateTimeFromUtc(long micros, bool local) {
    if (local) {
        throw InvalidArgumentException("DateTimeFromUtc: local time is not supported");
    }
    DateTime value;
    value.m_micros = micros;
    return value;
}

DateTime GetUtcDateTime() {
    using namespace std::chrono;
    return DateTimeFromUtc(
        duration_cast<microseconds>(system_clock::now().time_since_epoch()).count(), false);
}

Clock::~Clock() = default;

namespace {
class WallClock final : public Clock {
  public:
    DateTime Now() const override { return GetUtcDateTime(); }
};
}  // namespace

std::string DescribeDuration(int64_t microseconds) {
    if (microseconds % 1000000 == 0) {
        return std::to_string(microseconds / 1000000) + " s";
    }
    return std::to_string((microseconds + 999) / 1000) + " ms";
}

const Clock& SystemClock() {
    static const Immortal<WallClock> clock;  // read by work that may run during exit
    return *clock;
}

DateTime DateTimeFromFields(const DateTimeFields& f) {
    if (f.year < 1 || f.year > 9999 || f.month < 1 || f.month > 12 || f.day < 1 ||
        f.day > DaysInMonth(f.year, f.month) || f.hour < 0 || f.hour > 23 || f.minute < 0 ||
        f.minute > 59 || f.second < 0 || f.second > 59 || f.microsecond < 0 ||
        f.microsecond >= kMicrosPerSecond) {
        throw DateTimeFormatException("Date-time field out of range");
    }
    int64_t days =
        DaysFromCivil(f.year, static_cast<unsigned>(f.month), static_cast<unsigned>(f.day));
    int64_t seconds = days * 86400 + f.hour * 3600 + f.minute * 60 + f.second;
    return DateTimeFromUtc(seconds * kMicrosPerSecond + f.microsecond, false);
}

}  // namespace System
}  // namespace Basalt
