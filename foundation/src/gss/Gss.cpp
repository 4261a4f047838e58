#include <basalt/Gss.h>

#include <atomic>

#include "internal/gss/GssInternal.h"

namespace Basalt {
namespace Gss {

BASALT_DEFINE_EXCEPTION(GssException, Exception)
BASALT_DEFINE_EXCEPTION(CredentialsException, GssException)

namespace {

gss_OID_desc kSpnego = {6, const_cast<char*>("\x2b\x06\x01\x05\x05\x02")};  // 1.3.6.1.5.5.2

// Every text the GSS-API has for one status value (a GSS or a mechanism code), joined.
std::string StatusText(OM_uint32 value, int type) {
    std::string text;
    OM_uint32 more = 0;
    do {
        OM_uint32 minor = 0;
        gss_buffer_desc buffer = GSS_C_EMPTY_BUFFER;
        if (GSS_ERROR(gss_display_status(&minor, value, type, GSS_C_NO_OID, &more, &buffer))) {
            break;
        }
        UniquePtr<GssBuffer> owner(&buffer);
        text += (text.empty() ? "" : "; ") +
                std::string(static_cast<const char*>(buffer.value), buffer.length);
    } while (more != 0);
    return text;
}

// The major status in words, then the mechanism's. A plain failure's major text only says that
// the minor one tells more, so it is left out then; a minor code of 0 may come back mapped to
// another number, whose text is then "Success".
std::string Describe(OM_uint32 major, OM_uint32 minor) {
    std::string mech = minor != 0 ? StatusText(minor, GSS_C_MECH_CODE) : "";
    if (mech == "Success") {
        mech.clear();
    }
    if (GSS_ROUTINE_ERROR(major) == GSS_S_FAILURE && !mech.empty()) {
        return mech;
    }
    const std::string gss = StatusText(major, GSS_C_GSS_CODE);
    return mech.empty() ? gss : gss + ": " + mech;
}

bool IsCredentialsError(OM_uint32 major, OM_uint32 minor) {
    const OM_uint32 routine = GSS_ROUTINE_ERROR(major);
    // Tickets fetched with a keytab from a KDC that does not answer also come as "no
    // credentials"; that is the KDC's fault, not the credentials'.
    return minor != static_cast<OM_uint32>(KRB5_KDC_UNREACH) &&
           (routine == GSS_S_NO_CRED || routine == GSS_S_CREDENTIALS_EXPIRED ||
            routine == GSS_S_DEFECTIVE_CREDENTIAL);
}

[[noreturn]] void Fail(OM_uint32 major, OM_uint32 minor, const std::string& what) {
    const std::string message = what + ": " + Describe(major, minor);
    if (IsCredentialsError(major, minor)) {
        BASALT_THROW(CredentialsException, message);
    }
    BASALT_THROW(GssException, message);
}

UniquePtr<gss_name_struct> ImportName(const std::string& text, gss_OID type) {
    gss_buffer_desc buffer{text.size(), const_cast<char*>(text.data())};
    OM_uint32 minor = 0;
    gss_name_t name = GSS_C_NO_NAME;
    const OM_uint32 major = gss_import_name(&minor, &buffer, type, &name);
    if (GSS_ERROR(major)) {
        BASALT_THROW(InvalidArgumentException,
                     "Invalid Kerberos name \"" + text + "\": " + Describe(major, minor));
    }
    return UniquePtr<gss_name_struct>(name);
}

std::string Where(const Credentials& credentials) {
    switch (credentials.source) {
        case CredentialSource::Cache:
            return "cache " + credentials.location;
        case CredentialSource::ClientKeytab:
            return "keytab " + credentials.location;
        default:
            return "the default cache";
    }
}

// A keytab's tickets go to a memory cache of the context's own, so that the user's default cache
// is left alone; the cache is destroyed with the context.
std::string NewMemoryCache() {
    static std::atomic<unsigned long> count{0};
    return "MEMORY:basalt-gss-" + std::to_string(++count);
}

void DestroyMemoryCache(const std::string& name) {
    krb5_context raw = nullptr;
    if (name.empty() || krb5_init_context(&raw) != 0) {
        return;
    }
    UniquePtr<_krb5_context> context(raw);
    krb5_ccache cache = nullptr;
    if (krb5_cc_resolve(raw, name.c_str(), &cache) == 0) {
        krb5_cc_destroy(raw, cache);
    }
}

UniquePtr<gss_cred_id_struct> Acquire(const Credentials& credentials,
                                      const std::string& memoryCache) {
    std::vector<gss_key_value_element_desc> elements;
    if (credentials.source == CredentialSource::Cache) {
        elements.push_back({"ccache", credentials.location.c_str()});
    } else if (credentials.source == CredentialSource::ClientKeytab) {
        elements.push_back({"client_keytab", credentials.location.c_str()});
        elements.push_back({"ccache", memoryCache.c_str()});
    }
    gss_key_value_set_desc store{static_cast<OM_uint32>(elements.size()), elements.data()};
    UniquePtr<gss_name_struct> principal;
    if (!credentials.principal.empty()) {
        principal = ImportName(credentials.principal, GSS_KRB5_NT_PRINCIPAL_NAME);
    }
    OM_uint32 minor = 0;
    gss_cred_id_t raw = GSS_C_NO_CREDENTIAL;
    OM_uint32 major =
        gss_acquire_cred_from(&minor, principal.get(), GSS_C_INDEFINITE, GSS_C_NO_OID_SET,
                              GSS_C_INITIATE, &store, &raw, nullptr, nullptr);
    UniquePtr<gss_cred_id_struct> owned(raw);
    // A cache whose tickets have expired is acquired without complaint; its lifetime tells. For
    // a keytab, this is where the tickets are fetched.
    OM_uint32 lifetime = 0;
    if (!GSS_ERROR(major)) {
        major = gss_inquire_cred(&minor, raw, nullptr, &lifetime, nullptr, nullptr);
    }
    if (GSS_ERROR(major)) {
        Fail(major, minor, "Cannot acquire Kerberos credentials from " + Where(credentials));
    }
    return owned;
}

}  // namespace

struct InitiatorContext::State {
    std::string target;
    std::string memoryCache;  // only for a keytab
    UniquePtr<gss_name_struct> targetName;
    UniquePtr<gss_cred_id_struct> credentials;
    UniquePtr<gss_ctx_id_struct> context;
    bool established = false;

    ~State() {
        context.reset();
        credentials.reset();
        DestroyMemoryCache(memoryCache);
    }
};

InitiatorContext::InitiatorContext(const std::string& target, TargetKind kind,
                                   const Credentials& credentials)
    : m_state(std::make_unique<State>()) {
    State& state = *m_state;
    state.target = target;
    state.targetName =
        ImportName(target, kind == TargetKind::HostBasedService ? GSS_C_NT_HOSTBASED_SERVICE
                                                                : GSS_KRB5_NT_PRINCIPAL_NAME);
    if (credentials.source == CredentialSource::ClientKeytab) {
        state.memoryCache = NewMemoryCache();
    }
    state.credentials = Acquire(credentials, state.memoryCache);
}

InitiatorContext::~InitiatorContext() = default;

std::vector<unsigned char> InitiatorContext::Step(const std::vector<unsigned char>& serverLeg) {
    State& state = *m_state;
    const std::string failed = "Kerberos negotiation with " + state.target + " failed";
    if (state.established) {
        BASALT_THROW(InvalidStateException, failed + ": the negotiation is already complete");
    }
    gss_buffer_desc input{serverLeg.size(), const_cast<unsigned char*>(serverLeg.data())};
    gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
    UniquePtr<GssBuffer> outputOwner(&output);
    OM_uint32 minor = 0;
    OM_uint32 flags = 0;
    gss_ctx_id_t context = state.context.release();
    const OM_uint32 major = gss_init_sec_context(
        &minor, state.credentials.get(), &context, state.targetName.get(), &kSpnego,
        GSS_C_MUTUAL_FLAG, GSS_C_INDEFINITE, GSS_C_NO_CHANNEL_BINDINGS,
        serverLeg.empty() ? GSS_C_NO_BUFFER : &input, nullptr, &output, &flags, nullptr);
    state.context.reset(context);
    if (GSS_ERROR(major)) {
        Fail(major, minor, failed);
    }
    if (major == GSS_S_COMPLETE) {
        if ((flags & GSS_C_MUTUAL_FLAG) == 0) {
            BASALT_THROW(GssException, failed + ": the service did not authenticate itself");
        }
        state.established = true;
    }
    const auto* bytes = static_cast<const unsigned char*>(output.value);
    return std::vector<unsigned char>(bytes, bytes + output.length);
}

bool InitiatorContext::IsEstablished() const {
    return m_state->established;
}

}  // namespace Gss
}  // namespace Basalt
