#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <basalt/Export.h>

namespace Basalt {
namespace System {

// Calendar fields of an instant in UTC (proleptic Gregorian calendar).
struct DateTimeFields {
    int year = 1970;
    int month = 1;  // 1-12
    int day = 1;    // 1-31
    int hour = 0;
    int minute = 0;
    int second = 0;
    int microsecond = 0;
};

// An instant in UTC with microsecond resolution, held as microseconds since
// 1970-01-01T00:00:00Z. Years 1 to 9999 can be parsed and printed.
class BASALT_API DateTime {
  public:
    // The epoch.
    DateTime() = default;
    // Parses an XML Schema dateTime: YYYY-MM-DDThh:mm:ss, an optional fraction of any length
    // (digits beyond microseconds are truncated), then "Z", a "+hh:mm"/"-hh:mm" offset (at most
    // 14:00) or nothing, which is read as UTC. 24:00:00 with no fraction is the next midnight.
    // Anything else, including white space, out-of-range fields or a day the month does not have,
    // throws DateTimeFormatException.
    explicit DateTime(std::string_view text);

    // Microseconds since the epoch (negative before it).
    int64_t GetUtcTime() const { return m_micros; }
    // The calendar fields of the instant in UTC.
    DateTimeFields GetFields() const;

    // Full form for descriptions: "2024-01-05T03:04:05.006007Z" (microseconds, always six digits).
    std::string ToString() const;
    // Short form for log lines: "2024-01-05T03:04:05Z" (seconds precision). The zone suffix of a
    // UTC value is "Z".
    std::string ToShortStringBias() const;

    friend bool operator==(const DateTime& a, const DateTime& b) {
        return a.m_micros == b.m_micros;
    }
    friend bool operator!=(const DateTime& a, const DateTime& b) {
        return a.m_micros != b.m_micros;
    }
    friend bool operator<(const DateTime& a, const DateTime& b) { return a.m_micros < b.m_micros; }
    friend bool operator<=(const DateTime& a, const DateTime& b) {
        return a.m_micros <= b.m_micros;
    }
    friend bool operator>(const DateTime& a, const DateTime& b) { return a.m_micros > b.m_micros; }
    friend bool operator>=(const DateTime& a, const DateTime& b) {
        return a.m_micros >= b.m_micros;
    }

  private:
    friend BASALT_API DateTime DateTimeFromUtc(long micros, bool local);
    int64_t m_micros = 0;
};

// The instant micros microseconds after the epoch. The flag asks for local-time interpretation;
// instants are always UTC here, so it must be false (true throws InvalidArgumentException).
BASALT_API DateTime DateTimeFromUtc(long micros, bool local);
// The current instant (wall clock).
BASALT_API DateTime GetUtcDateTime();
// The instant of calendar fields in UTC; throws DateTimeFormatException if a field is out of range.
BASALT_API DateTime DateTimeFromFields(const DateTimeFields& fields);

// Where "now" comes from. Whatever compares instants with the present (token validity windows,
// caches) reads it through a Clock, so that a caller with its own time source, or a test, can fix
// the present exactly.
class BASALT_API Clock {
  public:
    virtual ~Clock();
    // The current instant.
    virtual DateTime Now() const = 0;
};

// The wall clock (GetUtcDateTime); one instance for the life of the process.
BASALT_API const Clock& SystemClock();

// A duration for messages: whole seconds as "5 s", anything else as "1500 ms" (rounded up).
BASALT_API std::string DescribeDuration(int64_t microseconds);

}  // namespace System
}  // namespace Basalt
