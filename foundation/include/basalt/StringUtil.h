#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <basalt/Export.h>

namespace Basalt {
namespace StringUtil {

// Standard (RFC 4648, padded) Base64 of bytes.
BASALT_API std::string Base64Encode(const std::vector<unsigned char>& bytes);
BASALT_API std::string Base64Encode(const void* data, size_t size);
// Decodes padded standard Base64 into bytes (replacing bytes' contents). XML white space (blank,
// tab, CR, LF) anywhere in the text is skipped, since Base64 in XML is often wrapped. Any other
// character outside the alphabet, a length that is not a multiple of four, misplaced or excess
// padding, or non-zero bits after the last encoded byte throw Base64FormatException.
BASALT_API void Base64Decode(std::string_view text, std::vector<unsigned char>& bytes);

// Lower-case hexadecimal text of bytes (two digits a byte).
BASALT_API std::string ToHex(const std::vector<unsigned char>& bytes);

// A new random (version 4) UUID as 36 lower-case characters, e.g. "1b4e28ba-2fa1-41d2-883f-...".
BASALT_API std::string GenerateUuid();

// Overwrites the bytes with zeros in a way the compiler cannot elide (for passwords and keys).
BASALT_API void SecureWipe(void* data, size_t size);
// Overwrites the string's whole capacity with zeros and empties it.
BASALT_API void SecureWipe(std::string& text);

// Text kept for later use that must not outlive it (a password captured by a callback): every
// copy wipes its bytes when it goes.
class SecretText {
  public:
    explicit SecretText(std::string text) : m_text(std::move(text)) {}
    SecretText(const SecretText&) = default;
    SecretText(SecretText&& other) noexcept : m_text(std::move(other.m_text)) {
        SecureWipe(other.m_text);
    }
    SecretText& operator=(const SecretText&) = delete;
    SecretText& operator=(SecretText&&) = delete;
    ~SecretText() { SecureWipe(m_text); }

    const std::string& Get() const { return m_text; }

  private:
    std::string m_text;
};

// Copy of text with ASCII letters lower-cased; other bytes unchanged.
BASALT_API std::string ToLower(std::string_view text);

}  // namespace StringUtil

// Length of the Base64 text of size bytes, not counting a terminating NUL.
BASALT_API size_t Base64_EncodedLength(size_t size);
// Writes the Base64 text of data into out, which holds at least Base64_EncodedLength(size) bytes;
// returns the number written (no NUL is added).
BASALT_API size_t Base64_Encode(const void* data, size_t size, char* out);

}  // namespace Basalt
