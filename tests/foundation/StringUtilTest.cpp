#include <basalt/Exception.h>
#include <basalt/IO.h>
#include <basalt/StringUtil.h>
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <set>

namespace {

using Basalt::StringUtil::Base64Decode;
using Basalt::StringUtil::Base64Encode;

std::string Decode(std::string_view text) {
    std::vector<unsigned char> bytes;
    Base64Decode(text, bytes);
    return std::string(bytes.begin(), bytes.end());
}

TEST(Base64Test, Rfc4648VectorsRoundTrip) {
    const std::pair<const char*, const char*> vectors[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
    };
    for (const auto& [plain, encoded] : vectors) {
        EXPECT_EQ(Base64Encode(plain, std::strlen(plain)), encoded);
        EXPECT_EQ(Decode(encoded), plain);
        char buffer[16] = {};
        size_t length = Basalt::Base64_EncodedLength(std::strlen(plain));
        EXPECT_EQ(length, std::strlen(encoded));
        EXPECT_EQ(Basalt::Base64_Encode(plain, std::strlen(plain), buffer), length);
        EXPECT_EQ(std::string(buffer, length), encoded);
    }
}

TEST(Base64Test, AllByteValuesRoundTrip) {
    std::vector<unsigned char> all(256);
    for (int i = 0; i < 256; ++i) {
        all[i] = static_cast<unsigned char>(i);
    }
    std::vector<unsigned char> decoded;
    Base64Decode(Base64Encode(all), decoded);
    EXPECT_EQ(decoded, all);
}

TEST(Base64Test, XmlWhiteSpaceIsSkippedAnywhere) {
    EXPECT_EQ(Decode(" Zm9v\r\nYmFy\t"), "foobar");
    EXPECT_EQ(Decode("Zm9vYg=\n="), "foob");
    EXPECT_EQ(Decode(" \n "), "");
}

TEST(Base64Test, MalformedTextIsRejected) {
    const char* malformed[] = {
        "Zm9",           // length not a multiple of four
        "Zm9vY",         // one sextet left over
        "Zg=",           // too little padding
        "Zg===",         // too much padding
        "=Zg=",          // padding first
        "Zg==Zg==",      // data after padding
        "Zm9v\x01",      // control character
        "Zm9-",          // URL-safe alphabet is not standard Base64
        "Zm9v\xc3\xa9",  // non-ASCII
        "Zh==",          // non-zero bits after the last byte
        "Zm9=",          // non-zero bits after the last two bytes
        "Zg\v==",        // vertical tab is not XML white space
    };
    for (const char* text : malformed) {
        std::vector<unsigned char> bytes{1, 2, 3};
        EXPECT_THROW(Base64Decode(text, bytes), Basalt::Base64FormatException) << text;
    }
    std::string withNul("Zm9v\0Zm9v", 9);
    std::vector<unsigned char> bytes;
    EXPECT_THROW(Base64Decode(withNul, bytes), Basalt::Base64FormatException);
}

TEST(StringUtilTest, UuidsAreRandomVersion4LowerCase) {
    const std::regex form("^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$");
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        std::string uuid = Basalt::StringUtil::GenerateUuid();
        EXPECT_TRUE(std::regex_match(uuid, form)) << uuid;
        seen.insert(uuid);
    }
    EXPECT_EQ(seen.size(), 100u);
}

TEST(StringUtilTest, SecureWipeZeroesTheWholeBuffer) {
    std::string secret(100, 'p');
    secret.resize(10);  // bytes beyond the size once held the secret too
    const char* buffer = secret.data();
    size_t capacity = secret.capacity();
    Basalt::StringUtil::SecureWipe(secret);
    EXPECT_TRUE(secret.empty());
    EXPECT_EQ(secret.data(), buffer);
    EXPECT_EQ(std::string(buffer, capacity), std::string(capacity, '\0'));
}

TEST(StringUtilTest, ToLowerFoldsOnlyAsciiLetters) {
    EXPECT_EQ(Basalt::StringUtil::ToLower("MiXeD-Case_09 \xC3\x89"), "mixed-case_09 \xC3\x89");
    EXPECT_EQ(Basalt::StringUtil::ToLower(std::string("A\0B", 3)), std::string("a\0b", 3));
}

TEST(StringIoTest, ReaderOwnsItsCopyAndReadsInPieces) {
    Basalt::Ref<Basalt::StringReader> reader;
    {
        std::string text = "hello, world";
        Basalt::CreateStringReader(text, reader);
        text.assign(text.size(), 'x');  // the reader must not see this
    }
    char buffer[5];
    std::string read;
    for (size_t n; (n = reader->Read(buffer, sizeof buffer)) > 0;) {
        read.append(buffer, n);
    }
    EXPECT_EQ(read, "hello, world");
    EXPECT_EQ(reader->Remaining(), 0u);
    EXPECT_EQ(reader->Read(buffer, sizeof buffer), 0u);
}

TEST(StringIoTest, WriterAccumulatesAndHandsOver) {
    Basalt::Ref<Basalt::StringWriter> writer;
    Basalt::CreateStringWriter(writer);
    Basalt::Writer* sink = writer.Get();
    sink->Write("ab");
    sink->Write(std::string("c\0d", 3));
    EXPECT_EQ(writer->GetString(), std::string("abc\0d", 5));
    EXPECT_EQ(writer->TakeString(), std::string("abc\0d", 5));
    EXPECT_EQ(writer->GetString(), "");
}

}  // namespace
