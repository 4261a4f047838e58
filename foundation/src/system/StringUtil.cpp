#include <basalt/StringUtil.h>

#include <openssl/crypto.h>
#include <uuid/uuid.h>

#include <array>

#include <basalt/Exception.h>

namespace Basalt {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr int kSkip = -2;     // XML white space
constexpr int kPad = -3;      // '='
constexpr int kInvalid = -1;  // anything else

constexpr std::array<int, 256> MakeDecodeTable() {
    std::array<int, 256> table{};
    for (auto& entry : table) {
        entry = kInvalid;
    }
    for (int i = 0; i < 64; ++i) {
        table[static_cast<unsigned char>(kAlphabet[i])] = i;
    }
    table[' '] = table['\t'] = table['\r'] = table['\n'] = kSkip;
    table['='] = kPad;
    return table;
}

constexpr std::array<int, 256> kDecode = MakeDecodeTable();

[[noreturn]] void ThrowBase64(const char* what) {
    throw Base64FormatException(std::string("Invalid Base64 text: ") + what);
}

}  // namespace

size_t Base64_EncodedLength(size_t size) {
    return (size + 2) / 3 * 4;
}

size_t Base64_Encode(const void* data, size_t size, char* out) {
    const auto* in = static_cast<const unsigned char*>(data);
    char* start = out;
    size_t i = 0;
    for (; i + 3 <= size; i += 3) {
        uint32_t group = (uint32_t{in[i]} << 16) | (uint32_t{in[i + 1]} << 8) | in[i + 2];
        *out++ = kAlphabet[(group >> 18) & 63];
        *out++ = kAlphabet[(group >> 12) & 63];
        *out++ = kAlphabet[(group >> 6) & 63];
        *out++ = kAlphabet[group & 63];
    }
    if (size - i == 1) {
        uint32_t group = uint32_t{in[i]} << 16;
        *out++ = kAlphabet[(group >> 18) & 63];
        *out++ = kAlphabet[(group >> 12) & 63];
        *out++ = '=';
        *out++ = '=';
    } else if (size - i == 2) {
        uint32_t group = (uint32_t{in[i]} << 16) | (uint32_t{in[i + 1]} << 8);
        *out++ = kAlphabet[(group >> 18) & 63];
        *out++ = kAlphabet[(group >> 12) & 63];
        *out++ = kAlphabet[(group >> 6) & 63];
        *out++ = '=';
    }
    return static_cast<size_t>(out - start);
}

namespace StringUtil {

std::string Base64Encode(const void* data, size_t size) {
    std::string text(Base64_EncodedLength(size), '\0');
    text.resize(Base64_Encode(data, size, text.data()));
    return text;
}

std::string Base64Encode(const std::vector<unsigned char>& bytes) {
    return Base64Encode(bytes.data(), bytes.size());
}

void Base64Decode(std::string_view text, std::vector<unsigned char>& bytes) {
    // Room for every byte the text can hold, trimmed at the end: no growth check per byte.
    std::vector<unsigned char> out(text.size() / 4 * 3 + 3);
    size_t size = 0;
    uint32_t group = 0;
    int filled = 0;   // sextets in the current group
    int padding = 0;  // '=' seen so far; only white space may follow the final group
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const unsigned char* const end = p + text.size();
    while (p != end) {
        // The usual case, kept short: four data characters make three bytes.
        if (filled == 0 && padding == 0 && end - p >= 4) {
            const int a = kDecode[p[0]], b = kDecode[p[1]], c = kDecode[p[2]], d = kDecode[p[3]];
            if ((a | b | c | d) >= 0) {  // none is white space, padding or invalid
                const uint32_t whole = static_cast<uint32_t>(a << 18 | b << 12 | c << 6 | d);
                out[size++] = static_cast<unsigned char>(whole >> 16);
                out[size++] = static_cast<unsigned char>(whole >> 8);
                out[size++] = static_cast<unsigned char>(whole);
                p += 4;
                continue;
            }
        }
        const int value = kDecode[*p++];
        if (value >= 0 && padding == 0) {
            group = (group << 6) | static_cast<uint32_t>(value);
            if (++filled == 4) {
                out[size++] = static_cast<unsigned char>(group >> 16);
                out[size++] = static_cast<unsigned char>(group >> 8);
                out[size++] = static_cast<unsigned char>(group);
                group = 0;
                filled = 0;
            }
            continue;
        }
        if (value == kSkip) {
            continue;
        }
        if (value == kInvalid) {
            ThrowBase64("unexpected character");
        }
        if (value == kPad) {
            // Padding may only fill the last one or two places of a group.
            if (filled + padding < 2) {
                ThrowBase64("misplaced padding");
            }
            if (++padding + filled > 4) {
                ThrowBase64("too much padding");
            }
            continue;
        }
        ThrowBase64("data after padding");
    }
    if (filled != 0 || padding != 0) {
        if (filled + padding != 4) {
            ThrowBase64("length is not a multiple of four");
        }
        // A final group of 2 or 3 sextets carries 1 or 2 bytes; the bits beyond them must be
        // zero so that every byte string has exactly one encoding.
        if (filled == 2) {
            if (group & 0xF) {
                ThrowBase64("non-zero trailing bits");
            }
            out[size++] = static_cast<unsigned char>(group >> 4);
        } else {
            if (group & 0x3) {
                ThrowBase64("non-zero trailing bits");
            }
            out[size++] = static_cast<unsigned char>(group >> 10);
            out[size++] = static_cast<unsigned char>(group >> 2);
        }
    }
    out.resize(size);
    bytes.swap(out);
}

std::string ToHex(const std::vector<unsigned char>& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (unsigned char b : bytes) {
        hex += kDigits[b >> 4];
        hex += kDigits[b & 15];
    }
    return hex;
}

std::string GenerateUuid() {
    uuid_t uuid;
    uuid_generate_random(uuid);
    char text[37];
    uuid_unparse_lower(uuid, text);
    return std::string(text, 36);
}

void SecureWipe(void* data, size_t size) {
    if (data != nullptr && size > 0) {
        OPENSSL_cleanse(data, size);
    }
}

void SecureWipe(std::string& text) {
    text.resize(text.capacity());
    SecureWipe(text.data(), text.size());
    text.clear();
}

std::string ToLower(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return lower;
}

}  // namespace StringUtil
}  // namespace Basalt
