#include <basalt/Exception.h>
#include <basalt/StringUtil.h>
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <regex>
#include <set>

#include "support/ExpectThrow.h"

namespace {

using Basalt::StringUtil::Base64Decode;
using Basalt::StringUtil::Base64Encode;

std::string Decode(std::string_view text) {
    std::vector<unsigned char> bytes;
    Base64Decode(text, bytes);
    return std::string(bytes.begin(), bytes.end());
}

TEST(Base64Test, Rfc4648VectorsAndEveryByteRoundTrip) {
    const std::pair<const char*, const char*> vectors[] = {{"", ""},
                                                           {"f", "Zg=="},
                                                           {"fo", "Zm8="},
                                                           {"foo", "Zm9v"},
                                                           {"foob", "Zm9vYg=="},
                                                           {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"}};
    for (const auto& [plain, encoded] : vectors) {
        EXPECT_EQ(Base64Encode(plain, std::strlen(plain)), encoded);
        EXPECT_EQ(Decode(encoded), plain);
    }
    std::vector<unsigned char> all(256), decoded;
    std::iota(all.begin(), all.end(), 0);
    Base64Decode(Base64Encode(all), decoded);
    EXPECT_EQ(decoded, all);
    // XML white space is skipped anywhere, even inside the padding.
    EXPECT_EQ(Decode(" Zm9v\r\nYmFy\t"), "foobar");
    EXPECT_EQ(Decode("Zm9vYg=\n="), "foob");
    EXPECT_EQ(Decode(" \n "), "");
}

TEST(Base64Test, MalformedTextIsRejectedAndLeavesTheOutputAlone) {
    const std::pair<std::string, const char*> malformed[] = {
        {"Zm9", "length is not a multiple of four"},
        {"Zm9vY", "length is not a multiple of four"},
        {"Zg=", "length is not a multiple of four"},
        {"Zg===", "too much padding"},
        {"=Zg=", "misplaced padding"},
        {"Zg==Zg==", "data after padding"},
        {"Zm9v\x01", "unexpected character"},
        // The URL-safe alphabet, non-ASCII, a vertical tab (not XML white space), NUL.
        {"Zm9-", "unexpected character"},
        {"Zm9v\xc3\xa9", "unexpected character"},
        {"Zg\v==", "unexpected character"},
        {std::string("Zm9v\0Zm9v", 9), "unexpected character"},
        // Bits beyond the last byte must be zero, so each byte string has one encoding.
        {"Zh==", "non-zero trailing bits"},
        {"Zm9=", "non-zero trailing bits"},
    };
    for (const auto& [text, reason] : malformed) {
        std::vector<unsigned char> bytes{1, 2, 3};
        EXPECT_TRUE(TestSupport::Throws<Basalt::Base64FormatException>(
            [&] { Base64Decode(text, bytes); }, std::string("Invalid Base64 text: ") + reason))
            << text;
        EXPECT_EQ(bytes, std::vector<unsigned char>({1, 2, 3}));
    }
}

TEST(StringUtilTest, UuidsWipingAndCase) {
    const std::regex form("^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$");
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(std::regex_match(*seen.insert(Basalt::StringUtil::GenerateUuid()).first, form));
    }
    EXPECT_EQ(seen.size(), 100u);
    // Bytes beyond the size once held the secret too.
    std::string secret(100, 'p');
    secret.resize(10);
    const char* buffer = secret.data();
    size_t capacity = secret.capacity();
    Basalt::StringUtil::SecureWipe(secret);
    EXPECT_TRUE(secret.empty());
    EXPECT_EQ(secret.data(), buffer);
    EXPECT_EQ(std::string(buffer, capacity), std::string(capacity, '\0'));
    EXPECT_EQ(Basalt::StringUtil::ToLower(std::string("MiXeD-Case_09@[ \xC3\x89\0Z", 19)),
              std::string("mixed-case_09@[ \xC3\x89\0z", 19));
    EXPECT_EQ(Basalt::StringUtil::ToHex({0x00, 0x9f, 0xa0, 0xff}), "009fa0ff");
}

}  // namespace
