#include <basalt/Exception.h>

#include <cxxabi.h>

#include <typeinfo>

#include "internal/system/UniquePtr.h"

namespace Basalt {

Throwable::Throwable(const char* message) : m_message(message ? message : "") {}
Throwable::Throwable(const std::string& message) : m_message(message) {}
Throwable::Throwable(std::string&& message) : m_message(std::move(message)) {}
Throwable::Throwable(const Throwable& other) = default;
Throwable& Throwable::operator=(const Throwable& other) = default;
Throwable::~Throwable() = default;

const char* Throwable::what() const noexcept {
    return m_message.c_str();
}

std::string Throwable::Dump() const {
    std::string text = DemangledName(typeid(*this)) + ": " + m_message;
    if (!m_where.empty()) {
        text += " (at " + m_where + ")";
    }
    return text;
}

std::string Throwable::Where() const {
    return m_where;
}

void Throwable::SetWhere(const char* file, int line) {
    m_where = std::string(file ? file : "?") + ":" + std::to_string(line);
}

Exception::Exception(const char* message) : Throwable(message) {}
Exception::Exception(const std::string& message) : Throwable(message) {}
Exception::Exception(std::string&& message) : Throwable(std::move(message)) {}
Exception::Exception(const Exception& other) = default;
Exception::~Exception() = default;

long Exception::GetErrorCode() const {
    return m_errorCode;
}

Exception* Exception::Clone() const {
    return new Exception(*this);
}

void Exception::Throw() const {
    throw Exception(*this);
}

BASALT_DEFINE_EXCEPTION(InvalidArgumentException, Exception)
BASALT_DEFINE_EXCEPTION(InvalidStateException, Exception)
BASALT_DEFINE_EXCEPTION(Base64FormatException, Exception)
BASALT_DEFINE_EXCEPTION(DateTimeFormatException, Exception)
BASALT_DEFINE_EXCEPTION(TypeMismatchException, Exception)
namespace Xml {
BASALT_DEFINE_EXCEPTION(XMLParseException, Exception)
namespace Security {
BASALT_DEFINE_EXCEPTION(XmlSecurityException, Exception)
BASALT_DEFINE_EXCEPTION(SignatureSyntaxException, Exception)
}  // namespace Security
}  // namespace Xml

std::string DemangledName(const std::type_info& type) {
    int status = 0;
    UniquePtr<MallocChars> name(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status));
    return status == 0 && name ? std::string(name.get()) : std::string(type.name());
}

void ThrowTypeMismatchException(const std::type_info& expected, const std::type_info& actual) {
    throw TypeMismatchException("Type mismatch: expected " + DemangledName(expected) + ", got " +
                                DemangledName(actual));
}

}  // namespace Basalt
