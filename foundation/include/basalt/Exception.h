#pragma once

#include <exception>
#include <string>
#include <typeinfo>

#include <basalt/Export.h>

namespace Basalt {

// Root of every foundation and library exception: holds the message.
class BASALT_API Throwable : public std::exception {
  public:
    explicit Throwable(const char* message);
    explicit Throwable(const std::string& message);
    explicit Throwable(std::string&& message);
    Throwable(const Throwable& other);
    Throwable& operator=(const Throwable& other);
    ~Throwable() override;

    // The message; never null, empty when the message is empty.
    const char* what() const noexcept override;
    // The dynamic class name followed by the message, for logs.
    virtual std::string Dump() const;
    // Where the exception was raised, when the thrower recorded it (see SetWhere), else empty.
    virtual std::string Where() const;
    // Records the raising site; BASALT_THROW does this for you.
    void SetWhere(const char* file, int line);

  private:
    std::string m_message;
    std::string m_where;
};

// Foundation's general error. Every subclass can be cloned onto the heap and rethrown by value
// with its exact dynamic class, which is how failures cross threads.
class BASALT_API Exception : public Throwable {
  public:
    explicit Exception(const char* message);
    explicit Exception(const std::string& message);
    explicit Exception(std::string&& message);
    Exception(const Exception& other);
    ~Exception() override;

    // An optional numeric code kept for the thrower (an errno or a C library's error number);
    // 0 when none was given.
    virtual long GetErrorCode() const;
    void SetErrorCode(long code) { m_errorCode = code; }

    // A heap copy with the same dynamic class; the caller owns it.
    virtual Exception* Clone() const;
    // Throws a copy of this object with its exact dynamic class.
    [[noreturn]] virtual void Throw() const;

  private:
    long m_errorCode = 0;
};

}  // namespace Basalt

// Declares an exception class with the constructors, Clone and Throw every family member has.
#define BASALT_DECLARE_EXCEPTION(API, Name, Base)  \
    class API Name : public Base {                 \
      public:                                      \
        explicit Name(const char* message);        \
        explicit Name(const std::string& message); \
        explicit Name(std::string&& message);      \
        Name(const Name& other);                   \
        ~Name() override;                          \
        Name* Clone() const override;              \
        [[noreturn]] void Throw() const override;  \
    }

// Defines what BASALT_DECLARE_EXCEPTION declared, inside the class's namespace.
#define BASALT_DEFINE_EXCEPTION(Name, Base)                         \
    Name::Name(const char* message) : Base(message) {}              \
    Name::Name(const std::string& message) : Base(message) {}       \
    Name::Name(std::string&& message) : Base(std::move(message)) {} \
    Name::Name(const Name& other) = default;                        \
    Name::~Name() = default;                                        \
    Name* Name::Clone() const {                                     \
        return new Name(*this);                                     \
    }                                                               \
    void Name::Throw() const {                                      \
        throw Name(*this);                                          \
    }

// Throws an exception of class Type with the given message, recording the source position.
#define BASALT_THROW(Type, message)                 \
    do {                                            \
        Type basaltThrown_(message);                \
        basaltThrown_.SetWhere(__FILE__, __LINE__); \
        throw basaltThrown_;                        \
    } while (0)

namespace Basalt {

BASALT_DECLARE_EXCEPTION(BASALT_API, InvalidArgumentException, Exception);
BASALT_DECLARE_EXCEPTION(BASALT_API, InvalidStateException, Exception);
BASALT_DECLARE_EXCEPTION(BASALT_API, Base64FormatException, Exception);
BASALT_DECLARE_EXCEPTION(BASALT_API, DateTimeFormatException, Exception);
// A down-cast to an expected class failed (see ThrowTypeMismatchException).
BASALT_DECLARE_EXCEPTION(BASALT_API, TypeMismatchException, Exception);

namespace Xml {
BASALT_DECLARE_EXCEPTION(BASALT_API, XMLParseException, Exception);
namespace Security {
BASALT_DECLARE_EXCEPTION(BASALT_API, XmlSecurityException, Exception);
BASALT_DECLARE_EXCEPTION(BASALT_API, SignatureSyntaxException, Exception);
}  // namespace Security
}  // namespace Xml

// Throws TypeMismatchException naming the expected and the actual class; never returns.
[[noreturn]] BASALT_API void ThrowTypeMismatchException(const std::type_info& expected,
                                                        const std::type_info& actual);

// The demangled name of a type, for messages.
BASALT_API std::string DemangledName(const std::type_info& type);

}  // namespace Basalt
