#include <basalt/Format.h>

#include <string>

namespace Basalt {

PrintFormatter::PrintFormatter() = default;
PrintFormatter::PrintFormatter(bool value) : m_kind(Kind::Bool), m_integer(value) {}
PrintFormatter::PrintFormatter(int32_t value) : m_kind(Kind::Int32), m_integer(value) {}
PrintFormatter::PrintFormatter(int64_t value) : m_kind(Kind::Int64), m_integer(value) {}
PrintFormatter::PrintFormatter(const char* value) : m_text(value ? value : "(null)") {}
PrintFormatter::PrintFormatter(const std::string& value) : m_text(value) {}
PrintFormatter::PrintFormatter(std::string_view value) : m_text(value) {}
PrintFormatter::~PrintFormatter() = default;

void PrintFormatter::AppendTo(std::string& out) const {
    switch (m_kind) {
        case Kind::Bool:
            out += m_integer ? "true" : "false";
            break;
        case Kind::Int32:
        case Kind::Int64:
            out += std::to_string(m_integer);
            break;
        case Kind::String:
            out += m_text;
            break;
    }
}

void PrintFormatter::Print(Writer* writer) const {
    std::string text;
    AppendTo(text);
    writer->Write(text);
}

DatePrintFormatter::DatePrintFormatter(const System::DateTime& value) : m_value(value) {}

void DatePrintFormatter::AppendTo(std::string& out) const {
    out += m_value.ToString();
}

void DatePrintFormatter::Print(Writer* writer) const {
    writer->Write(m_value.ToString());
}

namespace Detail {

std::string ASPrintArray(std::string_view format, const PrintFormatter* const* args, size_t count) {
    std::string out;
    out.reserve(format.size() + 16 * count);
    size_t i = 0;
    while (i < format.size()) {
        size_t percent = format.find('%', i);
        if (percent == std::string_view::npos || percent + 1 >= format.size()) {
            out.append(format.substr(i));
            break;
        }
        out.append(format.substr(i, percent - i));
        char next = format[percent + 1];
        size_t index = static_cast<size_t>(next - '1');
        if (next >= '1' && next <= '9' && index < count) {
            args[index]->AppendTo(out);
            i = percent + 2;
        } else {
            out += '%';
            i = percent + 1;
        }
    }
    return out;
}

}  // namespace Detail
}  // namespace Basalt
