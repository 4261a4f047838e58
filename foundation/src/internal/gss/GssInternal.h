#pragma once

// Owners of the MIT GSS-API and krb5 handles behind Basalt::Gss. Never included from a public
// header.

#include <gssapi/gssapi.h>
#include <gssapi/gssapi_ext.h>
#include <gssapi/gssapi_krb5.h>
#include <krb5/krb5.h>

#include "internal/system/UniquePtr.h"

namespace Basalt {
namespace Gss {

inline void ReleaseName(gss_name_t name) {
    OM_uint32 minor = 0;
    gss_release_name(&minor, &name);
}
inline void ReleaseCredentials(gss_cred_id_t credentials) {
    OM_uint32 minor = 0;
    gss_release_cred(&minor, &credentials);
}
inline void DeleteContext(gss_ctx_id_t context) {
    OM_uint32 minor = 0;
    gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
}
inline void ReleaseBuffer(gss_buffer_t buffer) {
    OM_uint32 minor = 0;
    gss_release_buffer(&minor, buffer);
}

}  // namespace Gss

BASALT_DELETER(gss_name_struct, Gss::ReleaseName);
BASALT_DELETER(gss_cred_id_struct, Gss::ReleaseCredentials);
BASALT_DELETER(gss_ctx_id_struct, Gss::DeleteContext);
BASALT_DELETER(_krb5_context, krb5_free_context);
// The value of a buffer the GSS-API allocated (the descriptor itself is the caller's).
BASALT_TAGGED_DELETER(GssBuffer, gss_buffer_t, Gss::ReleaseBuffer);

}  // namespace Basalt
