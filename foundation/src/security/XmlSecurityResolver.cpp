// The stock key resolver: a fixed set of trusted signing certificates. What a signature's
// KeyInfo says only narrows the choice among them; nothing in the document is trusted.

#include <openssl/x509v3.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <basalt/Exception.h>
#include <basalt/StringUtil.h>
#include <basalt/XmlSecurity.h>
#include "internal/crypto/CryptoInternal.h"
#include "internal/security/XmlSecurityInternal.h"
#include "internal/xml/XmlInternal.h"

namespace Basalt {
namespace Xml {
namespace Security {

namespace {

constexpr const char kDsigNs[] = "http://www.w3.org/2000/09/xmldsig#";

// A distinguished name in a form that ignores the spacing and letter case differences between
// writers ("CN=a, O=b" and "cn=a,o=b" compare equal).
std::string NormalizeName(std::string_view name) {
    std::string out;
    bool escaped = false;
    for (char c : name) {
        if (!escaped && (c == ',' || c == '+' || c == '=')) {
            while (!out.empty() && out.back() == ' ') {
                out.pop_back();
            }
            out += c;
            continue;
        }
        if (!escaped && c == ' ' && !out.empty() &&
            (out.back() == ',' || out.back() == '+' || out.back() == '=')) {
            continue;
        }
        escaped = !escaped && c == '\\';
        out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    while (!out.empty() && out.back() == ' ') {
        out.pop_back();
    }
    return out;
}

std::string NormalizeSerial(std::string serial) {
    serial.erase(std::remove_if(serial.begin(), serial.end(),
                                [](unsigned char c) { return std::isspace(c); }),
                 serial.end());
    size_t first = serial.find_first_not_of('0');
    return first == std::string::npos ? std::string("0") : serial.substr(first);
}

std::vector<unsigned char> DecodeBase64(const std::string& text) {
    std::vector<unsigned char> bytes;
    try {
        StringUtil::Base64Decode(text, bytes);
    } catch (const Base64FormatException&) {
        bytes.clear();  // a malformed hint names no trusted certificate
    }
    return bytes;
}

bool IsDsig(const xmlNode* node, const char* localName) {
    return node->type == XML_ELEMENT_NODE && node->ns &&
           xmlStrEqual(node->ns->href, AsXmlChars(kDsigNs)) &&
           xmlStrEqual(node->name, AsXmlChars(localName));
}

xmlNode* FindDsigChild(const xmlNode* parent, const char* localName) {
    for (xmlNode* child = parent->children; child; child = child->next) {
        if (IsDsig(child, localName)) {
            return child;
        }
    }
    return nullptr;
}

std::string TextOf(const xmlNode* node) {
    UniquePtr<XmlString> content(xmlNodeGetContent(node));
    return Str(content.get());
}

// True if the text of node, without XML white space, is expected. Compared in place, run by run,
// when the text is one node, as it is in a parsed document (every verification checks this).
bool CompactTextEquals(const xmlNode* node, std::string_view expected) {
    constexpr const char* kSpace = " \t\r\n";
    const xmlNode* text = node->children;
    std::string joined;
    const char* p = nullptr;
    if (text && !text->next && text->type == XML_TEXT_NODE && text->content) {
        p = AsChars(text->content);
    } else {
        joined = TextOf(node);
        p = joined.c_str();  // the text of a node holds no NUL
    }
    size_t matched = 0;
    for (p += std::strspn(p, kSpace); *p; p += std::strspn(p, kSpace)) {
        const size_t run = std::strcspn(p, kSpace);
        if (expected.size() - matched < run ||
            std::memcmp(p, expected.data() + matched, run) != 0) {
            return false;
        }
        matched += run;
        p += run;
    }
    return matched == expected.size();
}

struct TrustedEntry {
    Ref<Crypto::Certificate> certificate;
    std::string base64;  // of the DER encoding, as X509Certificate carries it
    std::string issuer;  // normalised
    std::string serial;
    std::vector<unsigned char> subjectKeyId;
    UniquePtr<xmlSecKey> key;  // ready for verification
};

class TrustedCertificateResolver final : public ObjectImpl,
                                         public KeyInfoResolver,
                                         public ReadyKeySource {
  public:
    explicit TrustedCertificateResolver(const std::vector<Ref<Crypto::Certificate>>& trusted) {
        for (const auto& certificate : trusted) {
            if (!certificate) {
                BASALT_THROW(InvalidArgumentException, "A trusted certificate is null");
            }
            X509* native = Crypto::NativeCertificate(*certificate);
            if (!X509_get0_pubkey(native)) {
                BASALT_THROW(InvalidArgumentException, "The key of trusted certificate " +
                                                           certificate->GetSubjectName() +
                                                           " cannot be used");
            }
            TrustedEntry entry{certificate,
                               StringUtil::Base64Encode(certificate->GetDer()),
                               NormalizeName(certificate->GetIssuerName()),
                               NormalizeSerial(certificate->GetSerialNumber()),
                               {},
                               {}};
            entry.key = CreateXmlSecKey(X509_get0_pubkey(native));
            if (const ASN1_OCTET_STRING* ski = X509_get0_subject_key_id(native)) {
                entry.subjectKeyId.assign(ski->data, ski->data + ski->length);
            }
            m_trusted.push_back(std::move(entry));
        }
    }

    void Resolve(const ElementNode* keyInfo,
                 std::vector<Ref<Crypto::Certificate>>& candidates) const override {
        candidates.clear();
        if (keyInfo) {
            NamedCertificates(NativeElementOf(keyInfo), candidates);
        }
        if (candidates.empty()) {
            for (const TrustedEntry& entry : m_trusted) {
                candidates.push_back(entry.certificate);
            }
        }
    }

    xmlSecKey* ReadyKey(const Crypto::Certificate& certificate) const override {
        for (const TrustedEntry& entry : m_trusted) {
            if (entry.certificate.Get() == &certificate) {
                return entry.key.get();
            }
        }
        return nullptr;
    }

  private:
    // The trusted certificates that the X509Data of keyInfo names.
    void NamedCertificates(const xmlNode* keyInfo,
                           std::vector<Ref<Crypto::Certificate>>& named) const {
        for (xmlNode* data = keyInfo->children; data; data = data->next) {
            if (!IsDsig(data, "X509Data")) {
                continue;
            }
            for (xmlNode* item = data->children; item; item = item->next) {
                if (item->type != XML_ELEMENT_NODE) {
                    continue;
                }
                for (const TrustedEntry& entry : m_trusted) {
                    if (Names(item, entry) &&
                        std::find(named.begin(), named.end(), entry.certificate) == named.end()) {
                        named.push_back(entry.certificate);
                    }
                }
            }
        }
    }

    static bool Names(const xmlNode* item, const TrustedEntry& entry) {
        if (IsDsig(item, "X509Certificate")) {
            return CompactTextEquals(item, entry.base64);
        }
        if (IsDsig(item, "X509SKI")) {
            return !entry.subjectKeyId.empty() && DecodeBase64(TextOf(item)) == entry.subjectKeyId;
        }
        if (IsDsig(item, "X509IssuerSerial")) {
            xmlNode* issuer = FindDsigChild(item, "X509IssuerName");
            xmlNode* serial = FindDsigChild(item, "X509SerialNumber");
            return issuer && serial && NormalizeName(TextOf(issuer)) == entry.issuer &&
                   NormalizeSerial(TextOf(serial)) == entry.serial;
        }
        return false;
    }

    std::vector<TrustedEntry> m_trusted;
};

}  // namespace

void CreateTrustedCertificateResolver(const std::vector<Ref<Crypto::Certificate>>& trusted,
                                      Ref<KeyInfoResolver>& resolver) {
    InitXmlSecurity();
    resolver = new TrustedCertificateResolver(trusted);
}

}  // namespace Security
}  // namespace Xml
}  // namespace Basalt
