#include "internal/FailureNotes.h"

#include <algorithm>

namespace SsoClient {

std::string FailureNotes::Describe() const {
    std::string text;
    const auto add = [&text](const std::string& part) {
        text += (text.empty() ? "" : "; ") + part;
    };
    if (!url.empty()) {
        add("url " + url);
    }
    if (status != 0) {
        add("HTTP status " + std::to_string(status));
    }
    if (!excerpt.empty()) {
        add("reply '" + excerpt + "'");
    }
    if (!faultString.empty()) {
        add("SOAP fault '" + Excerpt(faultString) + "'");
    }
    if (attempts > 1) {
        add("attempts " + std::to_string(attempts));
    }
    return text;
}

FailureNotes& ThreadFailureNotes() {
    static thread_local FailureNotes notes;
    return notes;
}

std::string Excerpt(const std::string& reply) {
    std::string text = reply.substr(0, 200);
    // One line: a reply cannot forge further log lines.
    std::replace_if(
        text.begin(), text.end(),
        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, ' ');
    return text;
}

}  // namespace SsoClient
