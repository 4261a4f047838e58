#include <ssoClient/Exceptions.h>

namespace SsoClient {

BASALT_DEFINE_EXCEPTION(SsoException, Basalt::Exception)
BASALT_DEFINE_EXCEPTION(CommunicationException, SsoException)
BASALT_DEFINE_EXCEPTION(OperationCancelledException, CommunicationException)
BASALT_DEFINE_EXCEPTION(InvalidCredentialsException, SsoException)
BASALT_DEFINE_EXCEPTION(PasswordExpiredException, SsoException)
BASALT_DEFINE_EXCEPTION(InvalidTokenException, SsoException)
BASALT_DEFINE_EXCEPTION(InvalidSignatureException, InvalidTokenException)
BASALT_DEFINE_EXCEPTION(ParseException, InvalidTokenException)

}  // namespace SsoClient
