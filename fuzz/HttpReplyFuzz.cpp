// Feeds arbitrary bytes to the HTTP client's reply accumulator the way libcurl hands a reply over:
// header lines one at a time up to the blank line that ends a final (non-1xx) header block, then
// the rest as the body. What it keeps must be well-formed: named headers with trimmed values.
// Returns 0 for a reply with a status line, -1 for bytes that are none or that end the transfer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "internal/http/HttpInternal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    Basalt::Http::ReplyAccumulator reply;
    bool inBody = false;
    while (!rest.empty() && !inBody) {
        const size_t end = rest.find('\n');
        const std::string_view line = rest.substr(0, end == rest.npos ? rest.size() : end + 1);
        rest.remove_prefix(line.size());
        if (!reply.AddHeaderLine(line)) {
            return -1;
        }
        inBody = (line == "\r\n" || line == "\n") && (reply.status < 100 || reply.status > 199);
    }
    if (!reply.AddBody(rest) || reply.status == 0) {
        return -1;
    }
    for (const auto& [name, value] : reply.headers) {
        const bool trimmed = value.empty() || (value.find_first_of(" \t") != 0 &&
                                               value.find_last_of(" \t") != value.size() - 1);
        if (name.empty() || name.find(':') != name.npos || !trimmed) {
            std::abort();  // a header line kept in a shape no caller expects
        }
    }
    return 0;
}
