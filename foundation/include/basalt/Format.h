#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include <basalt/DateTime.h>
#include <basalt/IO.h>

namespace Basalt {

// Wraps one argument of a formatted message. A formatter refers to string arguments without
// copying them, so it lives only as long as the call it is passed to.
class BASALT_API PrintFormatter {
  public:
    PrintFormatter(bool value);
    PrintFormatter(int32_t value);
    PrintFormatter(int64_t value);
    PrintFormatter(const char* value);  // null prints as "(null)"
    PrintFormatter(const std::string& value);
    PrintFormatter(std::string_view value);
    virtual ~PrintFormatter();

    // Writes the argument: booleans as "true"/"false", integers in decimal, strings verbatim.
    virtual void Print(Writer* writer) const;
    // Appends the printed argument to out.
    virtual void AppendTo(std::string& out) const;

  protected:
    PrintFormatter();

  private:
    enum class Kind { Bool, Int32, Int64, String };
    Kind m_kind = Kind::String;
    int64_t m_integer = 0;
    std::string_view m_text;
};

// Prints a date-time in its DateTime::ToString form.
class BASALT_API DatePrintFormatter : public PrintFormatter {
  public:
    explicit DatePrintFormatter(const System::DateTime& value);
    void Print(Writer* writer) const override;
    void AppendTo(std::string& out) const override;

  private:
    System::DateTime m_value;
};

namespace Detail {

// Replaces each placeholder %1 to %9 in format with the printed argument of that number. A '%'
// that is not followed by a digit naming a given argument is copied unchanged, as is all other
// text; "%10" is argument 1 followed by '0'.
BASALT_API std::string ASPrintArray(std::string_view format, const PrintFormatter* const* args,
                                    size_t count);

template <class... Formatters>
std::string ASPrintInternal(std::string_view format, const Formatters&... args) {
    static_assert(sizeof...(Formatters) <= 9, "at most nine arguments");
    static_assert((std::is_base_of_v<PrintFormatter, Formatters> && ...),
                  "arguments are PrintFormatter objects");
    if constexpr (sizeof...(Formatters) == 0) {
        return ASPrintArray(format, nullptr, 0);
    } else {
        const PrintFormatter* list[] = {&args...};
        return ASPrintArray(format, list, sizeof...(Formatters));
    }
}

}  // namespace Detail
}  // namespace Basalt
