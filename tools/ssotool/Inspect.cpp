#include "Inspect.h"

#include <basalt/DateTime.h>
#include <basalt/Jwt.h>
#include <basalt/StringUtil.h>
#include <ssoClient/Description.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SamlTokenFactory.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <limits>
#include <optional>
#include <sstream>
#include <vector>

namespace Ssotool {
namespace {

using Basalt::System::DateTime;
using Json = nlohmann::ordered_json;

// What inspect shows, whatever the token's format.
struct Report {
    std::string format;       // "saml" or "jwt"
    std::string description;  // empty when the library describes only validated tokens
    std::string issuer;
    std::string subject;
    std::vector<std::string> audience;
    std::optional<DateTime> start;
    std::optional<DateTime> end;
    std::string confirmation;
    std::vector<std::pair<std::string, DateTime>> delegationChain;  // delegate, instant
    std::string signatureAlgorithm;
};

std::string Principal(const SsoClient::PrincipalId& id) {
    return id.name + "@" + id.domain;
}

Report FromSaml(const std::string& xml) {
    // The widest tolerance lets an expired (or future) token be read; its window is shown below.
    const auto token = SsoClient::CreateSamlToken(xml, std::numeric_limits<long>::max());
    Report report;
    report.format = "saml";
    report.description = SsoClient::CreateSamlTokenDescription(*token);
    report.issuer = token->GetIssuer();
    report.subject = Principal(*token->GetSubject());
    std::set<std::string> audience;
    token->GetAudience(audience);
    report.audience.assign(audience.begin(), audience.end());
    report.start = token->GetStartTime();
    report.end = token->GetExpirationTime();
    report.confirmation = token->GetTokenType() == SsoClient::Saml_HOK ? "holder-of-key" : "bearer";
    std::vector<SsoClient::Delegate> chain;
    token->GetDelegationChain(chain);
    for (const SsoClient::Delegate& link : chain) {
        report.delegationChain.emplace_back(Principal(link.principal), link.delegationInstant);
    }
    report.signatureAlgorithm = token->GetSignature()->GetSignatureMethod();
    return report;
}

// The JSON of one base64url segment of a token the decoder accepted.
Json Segment(const std::string& token, size_t index) {
    size_t from = 0;
    for (; index > 0; --index) {
        from = token.find('.', from) + 1;
    }
    std::string text = token.substr(from, token.find('.', from) - from);
    for (char& c : text) {
        c = c == '-' ? '+' : c == '_' ? '/' : c;
    }
    text.append((4 - text.size() % 4) % 4, '=');
    std::vector<unsigned char> bytes;
    Basalt::StringUtil::Base64Decode(text, bytes);
    return Json::parse(bytes.begin(), bytes.end());
}

std::optional<DateTime> Instant(int64_t secondsSinceEpoch) {
    if (secondsSinceEpoch == 0) {
        return std::nullopt;  // what the decoder answers for an absent or unusable claim
    }
    return Basalt::System::DateTimeFromUtc(secondsSinceEpoch * 1000000, false);
}

Report FromJwt(const std::string& text) {
    const Basalt::Jwt::Decoder decoder(text);
    if (!decoder.IsDecoded()) {
        throw SsoClient::ParseException("Neither a SAML assertion nor a well-formed JWT");
    }
    Report report;
    report.format = "jwt";
    report.issuer = decoder.GetIssuer();
    report.subject = decoder.GetSubject();
    const Json audience = Segment(text, 1).value("aud", Json());
    for (const Json& entry : audience.is_array() ? audience : Json::array({audience})) {
        if (entry.is_string()) {
            report.audience.push_back(entry.get<std::string>());
        }
    }
    report.start = Instant(decoder.GetNotBefore() ? decoder.GetNotBefore() : decoder.GetIssuedAt());
    report.end = Instant(decoder.GetExpirationTime());
    report.confirmation = "bearer";
    const Json alg = Segment(text, 0).value("alg", Json());
    report.signatureAlgorithm = alg.is_string() ? alg.get<std::string>() : "";
    return report;
}

// "2d 3h 4m 5s", leaving out leading zero units.
std::string Span(int64_t seconds) {
    static const std::pair<int64_t, const char*> units[] = {
        {86400, "d"}, {3600, "h"}, {60, "m"}, {1, "s"}};
    std::string text;
    for (const auto& [size, name] : units) {
        if (seconds >= size || (size == 1 && text.empty())) {
            text += (text.empty() ? "" : " ") + std::to_string(seconds / size) + name;
            seconds %= size;
        }
    }
    return text;
}

std::string TimeLeft(const Report& report, const DateTime& now) {
    if (report.start && now < *report.start) {
        return "not yet valid, starts in " +
               Span((report.start->GetUtcTime() - now.GetUtcTime()) / 1000000);
    }
    if (!report.end) {
        return "no expiration time";
    }
    const int64_t left = (report.end->GetUtcTime() - now.GetUtcTime()) / 1000000;
    return left > 0 ? Span(left) + " left" : "expired " + Span(-left) + " ago";
}

std::string Text(const Report& report, const DateTime& now) {
    auto orNone = [](const std::string& text) { return text.empty() ? "(none)" : text; };
    auto time = [](const std::optional<DateTime>& t) {
        return t ? t->ToShortStringBias() : std::string("(none)");
    };
    std::string audience, chain;
    for (const std::string& entry : report.audience) {
        audience += (audience.empty() ? "" : ", ") + entry;
    }
    for (const auto& [delegate, instant] : report.delegationChain) {
        chain += (chain.empty() ? "" : ", ") + delegate + " at " + instant.ToShortStringBias();
    }
    std::ostringstream out;
    out << "Format:        " << (report.format == "saml" ? "SAML 2.0 assertion" : "JWT")
        << " (signature not checked)\n"
        << "Description:   "
        << (report.description.empty() ? "(given only for validated JWTs)" : report.description)
        << "\nIssuer:        " << orNone(report.issuer)
        << "\nSubject:       " << orNone(report.subject) << "\nAudience:      " << orNone(audience)
        << "\nValid:         " << time(report.start) << " to " << time(report.end) << " ("
        << TimeLeft(report, now) << ")\nConfirmation:  " << report.confirmation
        << "\nDelegation:    " << orNone(chain)
        << "\nSignature:     " << orNone(report.signatureAlgorithm) << '\n';
    return out.str();
}

std::string AsJson(const Report& report, const DateTime& now) {
    auto time = [](const std::optional<DateTime>& t) {
        return t ? Json(t->ToShortStringBias()) : Json();
    };
    Json chain = Json::array();
    for (const auto& [delegate, instant] : report.delegationChain) {
        chain.push_back({{"delegate", delegate}, {"instant", instant.ToShortStringBias()}});
    }
    const Json json = {
        {"format", report.format},
        {"signatureChecked", false},
        {"description", report.description.empty() ? Json() : Json(report.description)},
        {"issuer", report.issuer},
        {"subject", report.subject},
        {"audience", report.audience},
        {"notBefore", time(report.start)},
        {"notOnOrAfter", time(report.end)},
        {"secondsLeft",
         report.end ? Json((report.end->GetUtcTime() - now.GetUtcTime()) / 1000000) : Json()},
        {"confirmation", report.confirmation},
        {"delegationChain", chain},
        {"signatureAlgorithm", report.signatureAlgorithm}};
    return json.dump(2) + "\n";
}

}  // namespace

std::string Inspect(const std::string& token, bool json) {
    const Report report = token.rfind('<', 0) == 0 ? FromSaml(token) : FromJwt(token);
    const DateTime now = Basalt::System::SystemClock().Now();
    return json ? AsJson(report, now) : Text(report, now);
}

}  // namespace Ssotool
