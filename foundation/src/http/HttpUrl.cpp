#include <cctype>

#include <basalt/Http.h>
#include <basalt/Net.h>
#include <basalt/StringUtil.h>

namespace Basalt {
namespace Http {

namespace {

[[noreturn]] void Fail(std::string_view url, const char* reason) {
    throw Exception("Invalid URL '" + std::string(url) + "': " + reason);
}

bool IsHostNameChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == '_';
}

// Visible ASCII only: no blanks, controls or raw non-ASCII bytes may reach the request line.
bool IsUrlChar(char c) {
    return c > 0x20 && c < 0x7f;
}

int ParsePort(std::string_view url, std::string_view digits) {
    if (digits.empty() || digits.size() > 5) {
        Fail(url, "bad port");
    }
    int port = 0;
    for (char c : digits) {
        if (!std::isdigit(static_cast<unsigned char>(c))) {
            Fail(url, "bad port");
        }
        port = port * 10 + (c - '0');
    }
    if (port < 1 || port > 65535) {
        Fail(url, "port out of range");
    }
    return port;
}

}  // namespace

void ParseHttpURL(std::string_view url, bool& secure, std::string& host, int& port,
                  std::string& path) {
    const size_t schemeEnd = url.find("://");
    if (schemeEnd == std::string_view::npos) {
        Fail(url, "missing scheme");
    }
    const std::string scheme = StringUtil::ToLower(url.substr(0, schemeEnd));
    if (scheme != "http" && scheme != "https") {
        Fail(url, "scheme must be http or https");
    }
    const bool isSecure = scheme == "https";
    std::string_view rest = url.substr(schemeEnd + 3);
    const size_t authorityEnd = rest.find_first_of("/?#");
    std::string_view authority = rest.substr(0, authorityEnd);
    std::string_view target =
        authorityEnd == std::string_view::npos ? std::string_view() : rest.substr(authorityEnd);
    if (authority.find('@') != std::string_view::npos) {
        Fail(url, "user information is not allowed");
    }

    std::string parsedHost;
    std::string_view portText;
    if (!authority.empty() && authority.front() == '[') {
        const size_t close = authority.find(']');
        if (close == std::string_view::npos) {
            Fail(url, "unterminated IPv6 address");
        }
        parsedHost = std::string(authority.substr(1, close - 1));
        if (parsedHost.find(':') == std::string::npos || !System::IsIpAddress(parsedHost)) {
            Fail(url, "bad IPv6 address");
        }
        std::string_view after = authority.substr(close + 1);
        if (!after.empty()) {
            if (after.front() != ':') {
                Fail(url, "unexpected text after the IPv6 address");
            }
            portText = after.substr(1);
            if (portText.empty()) {
                Fail(url, "bad port");
            }
        }
    } else {
        const size_t colon = authority.find(':');
        parsedHost = std::string(authority.substr(0, colon));
        if (colon != std::string_view::npos) {
            portText = authority.substr(colon + 1);
            if (portText.empty()) {
                Fail(url, "bad port");
            }
        }
        for (char c : parsedHost) {
            if (!IsHostNameChar(c)) {
                Fail(url, "bad character in the host name");
            }
        }
    }
    if (parsedHost.empty()) {
        Fail(url, "missing host");
    }
    const int parsedPort = portText.empty() ? (isSecure ? 443 : 80) : ParsePort(url, portText);

    target = target.substr(0, target.find('#'));
    std::string parsedPath = target.empty() || target.front() == '?' ? "/" : "";
    for (char c : target) {
        if (!IsUrlChar(c)) {
            Fail(url, "character not allowed in the path");
        }
    }
    parsedPath.append(target);

    secure = isSecure;
    host = std::move(parsedHost);
    port = parsedPort;
    path = std::move(parsedPath);
}

}  // namespace Http
}  // namespace Basalt
