#pragma once

#include <basalt/Exception.h>

#include <ssoClient/Export.h>

namespace SsoClient {

// Every failure of a token-service exchange or of a token. Each class has constructors from a
// C string, a string and an rvalue string, a copy constructor, Clone() (a heap copy with the same
// dynamic class, owned by the caller) and Throw() (throws a copy with its exact class).

// A failure with no more specific class: malformed or unexpected responses, unexpected faults.
BASALT_DECLARE_EXCEPTION(SSOCLIENT_API, SsoException, Basalt::Exception);
// The exchange with the server could not be carried out (connection, TLS, HTTP, negotiation).
BASALT_DECLARE_EXCEPTION(SSOCLIENT_API, CommunicationException, SsoException);
// The caller cancelled an asynchronous operation ("Operation cancelled"); a communication failure
// too, so that hosts treating those alike need no new case.
BASALT_DECLARE_EXCEPTION(SSOCLIENT_API, OperationCancelledException, CommunicationException);
// The server rejected the credentials.
BASALT_DECLARE_EXCEPTION(SSOCLIENT_API, InvalidCredentialsException, SsoException);
// The server reports that the user's password has expired.
BASALT_DECLARE_EXCEPTION(SSOCLIENT_API, PasswordExpiredException, SsoException);
// A token is not acceptable: wrong content, expired, not yet valid, missing claims.
BASALT_DECLARE_EXCEPTION(SSOCLIENT_API, InvalidTokenException, SsoException);
// A token's signature is missing, malformed or does not verify.
BASALT_DECLARE_EXCEPTION(SSOCLIENT_API, InvalidSignatureException, InvalidTokenException);
// A token's text or XML does not have the required structure.
BASALT_DECLARE_EXCEPTION(SSOCLIENT_API, ParseException, InvalidTokenException);

}  // namespace SsoClient
