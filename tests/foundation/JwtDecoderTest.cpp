#include <basalt/Exception.h>
#include <basalt/Jwt.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "foundation/JwtTestSupport.h"

using Basalt::Jwt::Decoder;
using Basalt::Jwt::SigningKeys;
using JwtTest::Base64Url;
using JwtTest::Key;

namespace {

const char kHeader[] = R"({"alg":"RS256","typ":"JWT"})";

SigningKeys Keys(const std::vector<std::string>& files) {
    SigningKeys keys;
    for (const auto& file : files) {
        keys.push_back(Key(file));
    }
    return keys;
}

const std::vector<std::string> kAllPublicKeys = {"rsa.pem",     "rsa.pub",   "other-rsa.pub",
                                                 "ec256.pub",   "ec384.pub", "ec521.pub",
                                                 "ed25519.pub", "ed448.pub"};

std::string WithSegment(const std::string& token, int index, const std::string& segment) {
    std::vector<std::string> parts(3);
    size_t start = 0;
    for (int i = 0; i < 3; ++i) {
        const size_t dot = token.find('.', start);
        parts[i] = token.substr(start, dot - start);
        start = dot + 1;
    }
    parts[index] = segment;
    return parts[0] + "." + parts[1] + "." + parts[2];
}

std::string Nested(size_t depth) {
    std::string value = "1";
    for (size_t i = 1; i < depth; ++i) {
        value = "[" + value + "]";
    }
    return "{\"n\":" + value + "}";
}

// A syntactically valid token of exactly size bytes (its signature is filler).
std::string TokenOfSize(size_t size) {
    std::string payload = R"({"fill":""})";
    std::string input;
    size_t signatureChars = 0;
    do {
        payload.insert(9, "x");
        input = Base64Url(kHeader) + "." + Base64Url(payload) + ".";
        signatureChars = size - input.size();
    } while (signatureChars % 4 == 1);
    return input + std::string(signatureChars, 'A');
}

char WithLowBitSet(char c) {
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    return alphabet[alphabet.find(c) | 1];
}

}  // namespace

TEST(JwtDecoderTest, IndependentProducersVerifyForEveryAlgorithm) {
    // A certificate and a bare public key both serve; rsa.pem and rsa.pub hold the same key.
    const std::pair<const char*, const char*> cases[] = {
        {"RS256", "rsa.pem"},     {"RS384", "rsa.pem"},   {"RS512", "rsa.pem"},
        {"PS256", "rsa.pub"},     {"PS384", "rsa.pub"},   {"PS512", "rsa.pub"},
        {"ES256", "ec256.pub"},   {"ES384", "ec384.pub"}, {"ES512", "ec521.pub"},
        {"EdDSA", "ed25519.pub"},
    };
    for (const auto& [alg, ownKey] : cases) {
        const std::string own = ownKey;
        SigningKeys foreign;
        for (const auto& file : kAllPublicKeys) {
            if (file.substr(0, 4) != own.substr(0, 4)) {  // another key, not another form
                foreign.push_back(Key(file));
            }
        }
        for (const std::string producer : {"-pyjwt", "-jwcrypto"}) {
            SCOPED_TRACE(alg + producer);
            const Decoder decoder(JwtTest::Fixture(alg + producer));
            ASSERT_TRUE(decoder.IsDecoded());
            EXPECT_TRUE(decoder.ValidateSignature({Key(own)}));
            EXPECT_TRUE(decoder.ValidateSignature(Keys(kAllPublicKeys)));
            EXPECT_FALSE(decoder.ValidateSignature(foreign));
            EXPECT_EQ("alice@example.test", decoder.GetSubject());
        }
    }
}

TEST(JwtDecoderTest, SignaturesOutsideTheRulesNeverVerify) {
    const std::string good = JwtTest::Fixture("RS256-pyjwt");
    const std::string es256 = JwtTest::Fixture("ES256-pyjwt");
    const std::string rs = JwtTest::Unbase64Url(es256.substr(es256.rfind('.') + 1));
    const std::string paddedRs =
        std::string(1, '\0') + rs.substr(0, 32) + std::string(1, '\0') + rs.substr(32);
    struct Case {
        const char* name;
        std::string token;
        std::vector<std::string> keys;
    };
    const Case cases[] = {
        {"tampered payload",
         WithSegment(good, 1, Base64Url(R"({"sub":"mallory@example.test","jti":"x"})")),
         {"rsa.pub"}},
        {"alg none", Base64Url(R"({"alg":"none"})") + "." + Base64Url(R"({"sub":"a@b"})") + ".",
         kAllPublicKeys},
        {"HS256 keyed with the trusted PEM", JwtTest::Fixture("HS256-keyed-with-rsa.pub"),
         kAllPublicKeys},
        {"RS256 over an ECDSA signature of an EC key",
         JwtTest::Sign(kHeader, R"({"sub":"a@b"})", "ec256.key"),
         {"ec256.pub"}},
        {"ES256 signed on P-384", JwtTest::Fixture("ES256-on-P384"), {"ec384.pub"}},
        {"EdDSA with Ed448", JwtTest::Fixture("EdDSA-on-Ed448"), {"ed448.pub"}},
        {"ES256 with r and s zero-padded",
         WithSegment(es256, 2, Base64Url(paddedRs)),
         {"ec256.pub"}},
        {"no usable key", good, {"ec256.pub", "other-rsa.pub"}},
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
    const std::string good = JwtTest::Sign(kHeader, payload);
    std::string badBits = good;
    badBits.back() = WithLowBitSet(badBits.back());
    std::string withSpace = good;
    withSpace.insert(good.find('.') + 5, " ");
    std::string withPlus = good;
    withPlus[good.find('.') + 5] = '+';
    struct Case {
        const char* name;
        std::string token;
        bool decoded;
    };
    const Case cases[] = {
        {"well-formed", good, true},
        {"same name in different objects", JwtTest::Sign(kHeader, R"({"x":1,"n":{"x":2}})"), true},
        {"nesting at the limit", JwtTest::Sign(kHeader, Nested(Decoder::kMaxJsonDepth)), true},
        {"size at the limit", TokenOfSize(Decoder::kMaxTokenBytes), true},
        {"two segments", good.substr(0, good.rfind('.')), false},
        {"five segments (JWE)", good + ".AAAA.AAAA", false},
        {"padding", good + "==", false},
        {"blank inside", withSpace, false},
        {"line feed at the end", good + "\n", false},
        {"character outside base64url", withPlus, false},
        {"impossible segment length", good + "AAA", false},
        {"non-zero trailing bits", badBits, false},
        {"header not an object", JwtTest::Sign(R"(["alg","RS256"])", payload), false},
        {"payload not an object", JwtTest::Sign(kHeader, R"("a@b")"), false},
        {"payload not JSON", JwtTest::Sign(kHeader, R"({"sub":)"), false},
        {"payload not UTF-8", JwtTest::Sign(kHeader, "{\"sub\":\"\xff\"}"), false},
        {"duplicate in header", JwtTest::Sign(R"({"alg":"RS256","alg":"none"})", payload), false},
        {"duplicate in payload", JwtTest::Sign(kHeader, R"({"sub":"a@b","sub":"c@d"})"), false},
        {"duplicate in nested object", JwtTest::Sign(kHeader, R"({"n":{"x":1,"x":2}})"), false},
        {"duplicate in object in array", JwtTest::Sign(kHeader, R"({"n":[{"x":1,"x":2}]})"), false},
        {"crit header", JwtTest::Sign(R"({"alg":"RS256","crit":["exp"],"exp":1})", payload), false},
        {"zip header", JwtTest::Sign(R"({"alg":"RS256","zip":"DEF"})", payload), false},
        {"nesting beyond the limit", JwtTest::Sign(kHeader, Nested(Decoder::kMaxJsonDepth + 1)),
         false},
        {"size beyond the limit", TokenOfSize(Decoder::kMaxTokenBytes + 1), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.decoded, Decoder(c.token).IsDecoded());
    }
    EXPECT_THROW(Decoder(good + "\n").GetSubject(), Basalt::InvalidStateException);
}

TEST(JwtDecoderTest, TimeClaimsAreWholeNonNegativeSeconds) {
    const int64_t max = std::numeric_limits<int64_t>::max();
    const std::pair<const char*, int64_t> cases[] = {
        {"1700000000", 1700000000},
        {"1700000000.9", 1700000000},
        {"9223372036854775807", max},
        {"\"1700000000\"", 0},
        {"-5", 0},
        {"-0.5", 0},
        {"9223372036854775808", 0},
        {"1e30", 0},
        {"true", 0},
        {"null", 0},
    };
    for (const auto& [json, expected] : cases) {
        SCOPED_TRACE(json);
        const std::string v = json;
        const Decoder decoder(
            JwtTest::SignRs256(R"({"exp":)" + v + R"(,"iat":)" + v + R"(,"nbf":)" + v + "}"));
        ASSERT_TRUE(decoder.IsDecoded());
        EXPECT_EQ(expected, decoder.GetExpirationTime());
        EXPECT_EQ(expected, decoder.GetIssuedAt());
        EXPECT_EQ(expected, decoder.GetNotBefore());
    }
    EXPECT_EQ(0, Decoder(JwtTest::SignRs256("{}")).GetExpirationTime());
}

TEST(JwtDecoderTest, AudienceAndGroupsMustBeStrings) {
    struct AudienceCase {
        const char* aud;
        std::string expected;
    };
    const std::vector<std::string> accepted = {"urn:b", "https://a"};
    const AudienceCase audiences[] = {
        {R"("https://a")", "https://a"},
        {R"(["urn:x","https://a"])", "https://a"},
        {R"(["https://a","urn:b"])", "https://a"},
        {R"("https://c")", ""},
        {R"(["https://a",5])", ""},
        {"5", ""},
    };
    for (const auto& c : audiences) {
        SCOPED_TRACE(c.aud);
        const Decoder decoder(JwtTest::SignRs256(std::string(R"({"aud":)") + c.aud + "}"));
        EXPECT_EQ(c.expected, decoder.GetAudience(accepted));
    }
    EXPECT_EQ("", Decoder(JwtTest::SignRs256("{}")).GetAudience(accepted));

    struct GroupsCase {
        const char* payload;
        bool readable;
        std::vector<std::string> groups;
    };
    const GroupsCase groupCases[] = {
        {R"({"groups":["Users@x","a@b@c"]})", true, {"Users@x", "a@b@c"}},
        {R"({})", true, {}},
        {R"({"groups":"Users@x"})", false, {}},
        {R"({"groups":["Users@x",1]})", false, {}},
    };
    for (const auto& c : groupCases) {
        SCOPED_TRACE(c.payload);
        std::vector<std::string> groups = {"stale"};
        EXPECT_EQ(c.readable, Decoder(JwtTest::SignRs256(c.payload)).GetGroups(groups));
        EXPECT_EQ(c.groups, groups);
    }
}

TEST(JwtDecoderTest, StringClaimsAreReadOnlyAsStrings) {
    const Decoder decoder(JwtTest::SignRs256(
        R"({"jti":"id-1","iss":"https://sts","sub":7,"preferred_username":"Alice Liddell"})"));
    EXPECT_EQ("id-1", decoder.GetId());
    EXPECT_EQ("https://sts", decoder.GetIssuer());
    EXPECT_EQ("", decoder.GetSubject());
    EXPECT_EQ("Alice Liddell", decoder.GetUsername());
}

TEST(JwtKeyCacheTest, EachKeyTextIsParsedOnceAndBadTextsAreSkipped) {
    using Basalt::Jwt::GetKeyCacheStatistics;
    const std::string token = JwtTest::Fixture("RS256-pyjwt");
    // Trailing blank lines make texts of the same key that no other test uses.
    const std::string text = TestData::Read("jwt/rsa.pub") + "\n\n\n";
    const uint64_t before = GetKeyCacheStatistics().parses;
    for (int i = 0; i < 3; ++i) {
        const SigningKeys keys = {std::make_shared<const std::string>("not a key"),
                                  std::make_shared<const std::string>(text), nullptr};
        EXPECT_TRUE(Decoder(token).ValidateSignature(keys));
    }
    EXPECT_EQ(before + 2, GetKeyCacheStatistics().parses);
    EXPECT_FALSE(Decoder(token).ValidateSignature({std::make_shared<const std::string>("bad")}));

    // Filling the cache drops the least recently used text, which is then parsed again.
    const std::string base = TestData::Read("jwt/rsa.pub") + "\n\n\n\n";
    for (size_t i = 0; i <= Basalt::Jwt::kKeyCacheCapacity; ++i) {
        Decoder(token).ValidateSignature(
            {std::make_shared<const std::string>(base + std::string(i, '\n'))});
    }
    EXPECT_EQ(Basalt::Jwt::kKeyCacheCapacity, GetKeyCacheStatistics().entries);
    const uint64_t full = GetKeyCacheStatistics().parses;
    Decoder(token).ValidateSignature({std::make_shared<const std::string>(base)});
    EXPECT_EQ(full + 1, GetKeyCacheStatistics().parses);
}
