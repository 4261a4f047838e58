#include <basalt/Exception.h>
#include <basalt/Jwt.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "foundation/JwtTestSupport.h"

using Basalt::Jwt::Decoder;
using JwtTest::Base64Url;
using JwtTest::Keys;
using JwtTest::Sign;
using JwtTest::SignRs256;

namespace {

const char kHeader[] = R"({"alg":"RS256"})";

std::string Nested(size_t depth) {
    std::string value = "1";
    for (size_t i = 1; i < depth; ++i) {
        value = "[" + value + "]";
    }
    return "{\"n\":" + value + "}";
}

// A token of exactly size bytes whose signature is filler.
std::string TokenOfSize(size_t size) {
    std::string payload = R"({"x":""})";
    std::string input;
    do {
        payload.insert(6, "x");
        input = Base64Url(kHeader) + "." + Base64Url(payload) + ".";
    } while ((size - input.size()) % 4 == 1);
    return input + std::string(size - input.size(), 'A');
}

}  // namespace

TEST(JwtDecoderTest, SignaturesOutsideTheRulesNeverVerify) {
    const std::string rs256 = JwtTest::Fixture("RS256-pyjwt");
    const std::string tampered = rs256.substr(0, rs256.find('.') + 1) +
                                 Base64Url(R"({"sub":"eve@x"})") + rs256.substr(rs256.rfind('.'));
    const struct {
        const char* name;
        std::string token;
        std::vector<std::string> keys;
    } cases[] = {
        {"tampered payload", tampered, {"rsa.pub"}},
        {"alg none", Base64Url(R"({"alg":"none"})") + "." + Base64Url("{}") + ".",
         JwtTest::kPublicKeys},
        {"HS256 keyed with a trusted PEM", JwtTest::Fixture("HS256-keyed-with-rsa.pub"),
         JwtTest::kPublicKeys},
        {"RS256 over an ECDSA signature", Sign(kHeader, "{}", "ec256.key"), {"ec256.pub"}},
        {"ES256 signed on P-384", JwtTest::Fixture("ES256-on-P384"), {"ec384.pub"}},
        {"EdDSA with Ed448", JwtTest::Fixture("EdDSA-on-Ed448"), {"ed448.pub"}},
        {"ES256, r and s zero-padded", JwtTest::Fixture("ES256-padded-r-and-s"), {"ec256.pub"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Decoder decoder(c.token);
        ASSERT_TRUE(decoder.IsDecoded());
        EXPECT_FALSE(decoder.ValidateSignature(Keys(c.keys)));
    }
}

TEST(JwtDecoderTest, MalformedTokensHoldNoToken) {
    const std::string payload = R"({"sub":"a@b","n":{"x":[1,2]}})";
    const std::string good = Sign(kHeader, payload);
    const size_t inPayload = good.find('.') + 5;
    std::string badBits = good;  // 256 bytes: the last character's low 4 bits are unused (zero)
    badBits.back() = static_cast<char>(badBits.back() + 1);
    const struct {
        const char* name;
        std::string token;
        bool decoded;
    } cases[] = {
        {"well-formed", good, true},
        {"one name in two objects", Sign(kHeader, R"({"x":1,"n":{"x":2}})"), true},
        {"nesting at the limit", Sign(kHeader, Nested(Decoder::kMaxJsonDepth)), true},
        {"size at the limit", TokenOfSize(Decoder::kMaxTokenBytes), true},
        {"two segments", good.substr(0, good.rfind('.')), false},
        {"five segments (JWE)", good + ".AAAA.AAAA", false},
        {"padding", good + "==", false},
        {"blank inside", std::string(good).insert(inPayload, " "), false},
        {"line feed at the end", good + "\n", false},
        {"character outside base64url", std::string(good).replace(inPayload, 1, "+"), false},
        {"impossible segment length", good + "AAA", false},
        {"non-zero trailing bits", badBits, false},
        {"header not an object", Sign(R"(["alg","RS256"])", payload), false},
        {"payload not an object", Sign(kHeader, R"("a@b")"), false},
        {"payload not JSON", Sign(kHeader, R"({"sub":)"), false},
        {"payload not UTF-8", Sign(kHeader, "{\"sub\":\"\xff\"}"), false},
        {"duplicate in header", Sign(R"({"alg":"RS256","alg":"none"})", payload), false},
        {"duplicate in payload", Sign(kHeader, R"({"sub":"a@b","sub":"c@d"})"), false},
        {"duplicate in nested object", Sign(kHeader, R"({"n":{"x":1,"x":2}})"), false},
        {"duplicate in object in array", Sign(kHeader, R"({"n":[{"x":1,"x":2}]})"), false},
        {"crit header", Sign(R"({"alg":"RS256","crit":["exp"],"exp":1})", payload), false},
        {"zip header", Sign(R"({"alg":"RS256","zip":"DEF"})", payload), false},
        {"nesting beyond the limit", Sign(kHeader, Nested(Decoder::kMaxJsonDepth + 1)), false},
        {"size beyond the limit", TokenOfSize(Decoder::kMaxTokenBytes + 1), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.decoded, Decoder(c.token).IsDecoded());
    }
    EXPECT_THROW(Decoder(good + "\n").GetSubject(), Basalt::InvalidStateException);
}

TEST(JwtDecoderTest, TimesAreWholeNonNegativeSeconds) {
    const std::pair<std::string, int64_t> cases[] = {
        {"1700000000", 1700000000},
        {"1700000000.9", 1700000000},
        {"9223372036854775807", std::numeric_limits<int64_t>::max()},
        {"9223372036854775808", 0},
        {"1e30", 0},
        {"-5", 0},
        {"-0.5", 0},
        {"\"1700000000\"", 0},
        {"null", 0},
    };
    for (const auto& [v, expected] : cases) {
        SCOPED_TRACE(v);
        const Decoder decoder(
            SignRs256(R"({"exp":)" + v + R"(,"iat":)" + v + R"(,"nbf":)" + v + "}"));
        EXPECT_EQ(expected, decoder.GetExpirationTime());
        EXPECT_EQ(expected, decoder.GetIssuedAt());
        EXPECT_EQ(expected, decoder.GetNotBefore());
    }
}

TEST(JwtDecoderTest, AudienceAndGroupsMustBeStrings) {
    const std::pair<const char*, std::string> audiences[] = {
        {R"({"aud":"https://a"})", "https://a"},
        {R"({"aud":["urn:x","https://a","urn:b"]})", "https://a"},
        {R"({"aud":"https://c"})", ""},
        {R"({"aud":["https://a",5]})", ""},
        {R"({"aud":5})", ""},
        {R"({})", ""},
    };
    for (const auto& [payload, expected] : audiences) {
        SCOPED_TRACE(payload);
        EXPECT_EQ(expected, Decoder(SignRs256(payload)).GetAudience({"urn:b", "https://a"}));
    }
    const struct {
        const char* payload;
        bool readable;
        std::vector<std::string> groups;
    } groupCases[] = {
        {R"({"groups":["Users@x","a@b@c"]})", true, {"Users@x", "a@b@c"}},
        {R"({})", true, {}},
        {R"({"groups":"Users@x"})", false, {}},
        {R"({"groups":["Users@x",1]})", false, {}},
    };
    for (const auto& c : groupCases) {
        SCOPED_TRACE(c.payload);
        std::vector<std::string> groups = {"stale"};
        EXPECT_EQ(c.readable, Decoder(SignRs256(c.payload)).GetGroups(groups));
        EXPECT_EQ(c.groups, groups);
    }
}

TEST(JwtKeyCacheTest, EachKeyTextIsParsedOnceAndBadTextsAreSkipped) {
    using Basalt::Jwt::GetKeyCacheStatistics;
    const Decoder decoder(JwtTest::Fixture("RS256-pyjwt"));
    const auto text = [](size_t blankLines) {  // the same key as a text no other test uses
        return std::make_shared<const std::string>(TestData::Read("jwt/rsa.pub") +
                                                   std::string(3 + blankLines, '\n'));
    };
    const uint64_t before = GetKeyCacheStatistics().parses;
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(decoder.ValidateSignature(
            {std::make_shared<const std::string>("not a key"), nullptr, text(0)}));
    }
    EXPECT_EQ(before + 2, GetKeyCacheStatistics().parses);
    EXPECT_FALSE(decoder.ValidateSignature({std::make_shared<const std::string>("not a key")}));

    // Past its capacity the cache drops the least recently used text, which is parsed again.
    for (size_t i = 1; i <= Basalt::Jwt::kKeyCacheCapacity; ++i) {
        decoder.ValidateSignature({text(i)});
    }
    EXPECT_EQ(Basalt::Jwt::kKeyCacheCapacity, GetKeyCacheStatistics().entries);
    const uint64_t full = GetKeyCacheStatistics().parses;
    decoder.ValidateSignature({text(0)});
    EXPECT_EQ(full + 1, GetKeyCacheStatistics().parses);
}
