#pragma once

// What a synchronous operation learns about its exchange that its exception does not carry, for
// the warning line the service logs when the operation fails. An operation runs on one thread from
// start to end, so each thread keeps one record, which the operation clears when it starts and
// the transport and the response handler fill in as it goes.

#include <string>

namespace SsoClient {

struct FailureNotes {
    std::string url;          // where the last request went
    int status = 0;           // of the last reply; 0 when none arrived
    std::string excerpt;      // the start of a reply refused for its status
    std::string faultString;  // of a SOAP fault
    int attempts = 0;         // tries of the last request

    // "url ...; HTTP status ...; reply '...'; SOAP fault '...'; attempts ..." of what is known.
    std::string Describe() const;
};

FailureNotes& ThreadFailureNotes();

// At most 200 characters of a reply, control characters as spaces, for a log line.
std::string Excerpt(const std::string& reply);

}  // namespace SsoClient
