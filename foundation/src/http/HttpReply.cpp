// The reply of a transfer as libcurl delivers it, apart from libcurl itself so that it can be
// exercised with arbitrary bytes.
#include <cstdlib>
#include <string>

#include "internal/http/HttpInternal.h"

namespace Basalt {
namespace Http {

bool ReplyAccumulator::AddHeaderLine(std::string_view text) {
    std::string line(text);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    if (line.compare(0, 5, "HTTP/") == 0) {
        // A new status line (after an interim reply) starts the header set again.
        headers.clear();
        reason.clear();
        const size_t codeStart = line.find(' ');
        const size_t reasonStart =
            codeStart == std::string::npos ? codeStart : line.find(' ', codeStart + 1);
        if (reasonStart != std::string::npos) {
            reason = line.substr(reasonStart + 1);
        }
        status = codeStart == std::string::npos ? 0 : std::atoi(line.c_str() + codeStart);
    } else if (line.empty() && status >= 104 && status <= 199) {
        // libcurl reads every 1xx as an interim reply and waits for another status line. Codes
        // without a defined meaning come only from broken servers that never send one, so the
        // reply ends here and is reported with its own status.
        undefinedInterim = true;
        return false;
    } else if (const size_t colon = line.find(':'); colon != std::string::npos && colon > 0) {
        const size_t valueStart = line.find_first_not_of(" \t", colon + 1);
        const size_t valueEnd = line.find_last_not_of(" \t");
        headers.emplace_back(line.substr(0, colon),
                             valueStart == std::string::npos
                                 ? ""
                                 : line.substr(valueStart, valueEnd - valueStart + 1));
    }
    return true;
}

bool ReplyAccumulator::AddBody(std::string_view piece) {
    if (body.size() + piece.size() > kMaxResponseBodySize) {
        bodyTooLarge = true;
        return false;  // aborts the transfer
    }
    body.append(piece);
    return true;
}

}  // namespace Http
}  // namespace Basalt
