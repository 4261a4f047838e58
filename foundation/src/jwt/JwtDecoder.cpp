#include <nlohmann/json.hpp>

#include <array>
#include <limits>

#include <basalt/Exception.h>
#include "internal/jwt/JwtInternal.h"

namespace Basalt {
namespace Jwt {

using nlohmann::json;

namespace {

constexpr std::array<signed char, 256> MakeBase64UrlTable() {
    std::array<signed char, 256> table{};
    for (auto& value : table) {
        value = -1;
    }
    const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    for (int i = 0; i < 64; ++i) {
        table[static_cast<unsigned char>(alphabet[i])] = static_cast<signed char>(i);
    }
    return table;
}
constexpr std::array<signed char, 256> kBase64Url = MakeBase64UrlTable();

// Builds the DOM from SAX events like nlohmann's own parser, refusing repeated member names and
// deep nesting as it goes (its own parser keeps the last of repeated names silently).
class StrictBuilder final : public nlohmann::json_sax<json> {
  public:
    explicit StrictBuilder(json& root) : m_root(root) {}

    bool null() override { return Put(nullptr); }
    bool boolean(bool value) override { return Put(value); }
    bool number_integer(number_integer_t value) override { return Put(value); }
    bool number_unsigned(number_unsigned_t value) override { return Put(value); }
    bool number_float(number_float_t value, const string_t&) override { return Put(value); }
    bool string(string_t& value) override { return Put(std::move(value)); }
    bool binary(binary_t&) override { return false; }
    bool start_object(std::size_t) override { return Open(json::object()); }
    bool start_array(std::size_t) override { return Open(json::array()); }
    bool end_object() override { return Close(); }
    bool end_array() override { return Close(); }
    bool key(string_t& name) override {
        json& object = *m_open.back();
        if (object.contains(name)) {
            return false;
        }
        m_member = &object[name];
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

  private:
    json* Place(json&& value) {
        if (m_open.empty()) {
            m_root = std::move(value);
            return &m_root;
        }
        json& parent = *m_open.back();
        if (parent.is_array()) {
            parent.push_back(std::move(value));
            return &parent.back();
        }
        *m_member = std::move(value);
        return m_member;
    }
    template <class T>
    bool Put(T&& value) {
        Place(json(std::forward<T>(value)));
        return true;
    }
    bool Open(json&& container) {
        if (m_open.size() >= Decoder::kMaxJsonDepth) {
            return false;
        }
        m_open.push_back(Place(std::move(container)));
        return true;
    }
    bool Close() {
        m_open.pop_back();
        return true;
    }

    json& m_root;
    std::vector<json*> m_open;  // containers being filled, innermost last
    json* m_member = nullptr;   // the object member whose value comes next
};

std::string StringClaim(const json& payload, const char* name) {
    const auto it = payload.find(name);
    return it != payload.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// A NumericDate as whole seconds; 0 for whatever cannot be one.
int64_t SecondsClaim(const json& payload, const char* name) {
    const auto it = payload.find(name);
    if (it == payload.end()) {
        return 0;
    }
    if (it->is_number_unsigned()) {
        const auto value = it->get<uint64_t>();
        return value > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
                   ? 0
                   : static_cast<int64_t>(value);
    }
    if (it->is_number_float()) {
        const double value = it->get<double>();
        // 2^63 is exactly representable; every double below it converts without overflow.
        return value >= 0 && value < 9223372036854775808.0 ? static_cast<int64_t>(value) : 0;
    }
    return 0;  // negative integers, strings and the rest
}

bool IsStringArray(const json& value) {
    if (!value.is_array()) {
        return false;
    }
    for (const auto& element : value) {
        if (!element.is_string()) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool Base64UrlDecode(std::string_view text, std::string& out) {
    if (text.size() % 4 == 1) {
        return false;
    }
    out.clear();
    out.reserve(text.size() / 4 * 3 + 2);
    uint32_t bits = 0;
    int count = 0;
    for (const char c : text) {
        const int value = kBase64Url[static_cast<unsigned char>(c)];
        if (value < 0) {
            return false;
        }
        bits = (bits << 6) | static_cast<uint32_t>(value);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out.push_back(static_cast<char>((bits >> count) & 0xFF));
            bits &= (1u << count) - 1;
        }
    }
    return bits == 0;  // the unused low bits of the last character
}

bool ParseJsonObject(std::string_view text, json& out) {
    StrictBuilder builder(out);
    try {
        return json::sax_parse(text.begin(), text.end(), &builder) && out.is_object();
    } catch (const json::exception&) {
        return false;
    }
}

struct Decoder::Decoded {
    std::string signingInput;  // "header.payload" as it was signed
    std::string signature;
    std::string alg;
    json payload;
};

std::unique_ptr<Decoder::Decoded> Decoder::Decode(const std::string& token) {
    if (token.size() > kMaxTokenBytes) {
        return nullptr;
    }
    const size_t first = token.find('.');
    const size_t second = first == std::string::npos ? first : token.find('.', first + 1);
    if (second == std::string::npos || token.find('.', second + 1) != std::string::npos) {
        return nullptr;
    }
    auto decoded = std::make_unique<Decoded>();
    const std::string_view text(token);
    std::string bytes;
    json header;
    if (!Base64UrlDecode(text.substr(0, first), bytes) || !ParseJsonObject(bytes, header) ||
        !Base64UrlDecode(text.substr(first + 1, second - first - 1), bytes) ||
        !ParseJsonObject(bytes, decoded->payload) ||
        !Base64UrlDecode(text.substr(second + 1), decoded->signature)) {
        return nullptr;
    }
    // Extensions we would have to understand (crit) and compressed payloads are not supported.
    if (header.contains("crit") || header.contains("zip")) {
        return nullptr;
    }
    decoded->alg = StringClaim(header, "alg");
    decoded->signingInput = token.substr(0, second);
    return decoded;
}

Decoder::Decoder(const std::string& token) : m_decoded(Decode(token)) {}

Decoder::~Decoder() = default;

bool Decoder::IsDecoded() const {
    return m_decoded != nullptr;
}

const Decoder::Decoded& Decoder::Token() const {
    if (!m_decoded) {
        throw InvalidStateException("No decoded token");
    }
    return *m_decoded;
}

bool Decoder::ValidateSignature(const SigningKeys& keys) const {
    const Decoded& token = Token();
    for (const auto& text : keys) {
        if (!text) {
            continue;
        }
        const auto key = LookUpKey(*text);
        if (key->key && VerifyJws(token.alg, *key, token.signingInput, token.signature)) {
            return true;
        }
    }
    return false;
}

std::string Decoder::GetAudience(const std::vector<std::string>& audiences) const {
    const json& payload = Token().payload;
    const auto it = payload.find("aud");
    if (it == payload.end() || !(it->is_string() || IsStringArray(*it))) {
        return {};
    }
    const json values = it->is_string() ? json::array({*it}) : *it;
    for (const auto& value : values) {
        const auto& text = value.get_ref<const std::string&>();
        for (const auto& audience : audiences) {
            if (text == audience) {
                return text;
            }
        }
    }
    return {};
}

std::string Decoder::GetId() const {
    return StringClaim(Token().payload, "jti");
}

std::string Decoder::GetIssuer() const {
    return StringClaim(Token().payload, "iss");
}

std::string Decoder::GetSubject() const {
    return StringClaim(Token().payload, "sub");
}

std::string Decoder::GetUsername() const {
    return StringClaim(Token().payload, "preferred_username");
}

int64_t Decoder::GetExpirationTime() const {
    return SecondsClaim(Token().payload, "exp");
}

int64_t Decoder::GetIssuedAt() const {
    return SecondsClaim(Token().payload, "iat");
}

int64_t Decoder::GetNotBefore() const {
    return SecondsClaim(Token().payload, "nbf");
}

bool Decoder::GetGroups(std::vector<std::string>& groups) const {
    groups.clear();
    const json& payload = Token().payload;
    const auto it = payload.find("groups");
    if (it == payload.end()) {
        return true;
    }
    if (!IsStringArray(*it)) {
        return false;
    }
    for (const auto& group : *it) {
        groups.push_back(group.get<std::string>());
    }
    return true;
}

}  // namespace Jwt
}  // namespace Basalt
