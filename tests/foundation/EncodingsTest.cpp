// Base64, MD5 and fresh identifiers.
#include <veskan/ByteBuffer.h>
#include <veskan/StringBuffer.h>

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>

namespace Veskan {
namespace {

ByteBuffer Bytes(const std::string& text) {
  return ByteBuffer(reinterpret_cast<const unsigned char*>(text.data()), 0,
                    static_cast<int>(text.size()));
}

std::string Text(const ByteBuffer& bytes) {
  return std::string(bytes, bytes.Size());
}

// RFC 4648, section 10.
const std::pair<const char*, const char16_t*> Rfc4648Vectors[] = {
    {"", u""},
    {"f", u"Zg=="},
    {"fo", u"Zm8="},
    {"foo", u"Zm9v"},
    {"foob", u"Zm9vYg=="},
    {"fooba", u"Zm9vYmE="},
    {"foobar", u"Zm9vYmFy"},
};

TEST(Base64Test, EncodesAndDecodesTheStandardVectors) {
  for (const auto& [plain, encoded] : Rfc4648Vectors) {
    SCOPED_TRACE(plain);
    EXPECT_EQ(Encode64(Bytes(plain)), encoded);
    EXPECT_EQ(Text(Decode64(encoded)), plain);
  }
}

TEST(Base64Test, RangeAndLineBreaks) {
  const ByteBuffer bytes = Bytes("xxfoobar");
  EXPECT_EQ(Encode64(bytes, 2, 3), u"Zm9v");
  EXPECT_EQ(Encode64(bytes, 2, -1), u"Zm9vYmFy");
  EXPECT_EQ(Encode64(bytes, 2, 1000), u"Zm9vYmFy");
  EXPECT_EQ(Encode64(bytes, 2, -1, 4), u"Zm9v\r\nYmFy");
  EXPECT_EQ(Encode64(bytes, 2, -1, 3), u"Zm9\r\nvYm\r\nFy");
  EXPECT_TRUE(Encode64(bytes, -1).isEmpty());
  EXPECT_TRUE(Encode64(bytes, 9).isEmpty());
}

TEST(Base64Test, DecodingSkipsCharactersOutsideTheAlphabet) {
  EXPECT_EQ(Text(Decode64(u"Zm9v\r\nYmFy")), "foobar");
  EXPECT_EQ(Text(Decode64(u" Zm 9v\tYm\u00E9Fy ")), "foobar");
  EXPECT_EQ(Decode64(nullptr).Size(), 0);
  EXPECT_EQ(Decode64(u"!!!").Size(), 0);
}

TEST(Base64Test, RoundTripsRandomBytesOfEverySmallLength) {
  std::mt19937 random(7);
  for (int length = 0; length < 200; ++length) {
    std::string plain(static_cast<std::size_t>(length), '\0');
    for (char& byte : plain)
      byte = static_cast<char>(random());
    const ByteBuffer bytes = Bytes(plain);
    EXPECT_EQ(Text(Decode64(Encode64(bytes, 0, -1, 76))), plain) << "length " << length;
  }
}

TEST(MD5Test, Rfc1321VectorsInLowerCaseHex) {
  EXPECT_EQ(MD5(Bytes("")), u"d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(MD5(Bytes("abc")), u"900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(MD5(Bytes("message digest")), u"f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(MD5(Bytes("--abc--"), 2, 3), u"900150983cd24fb0d6963f7d28e17f72");
  EXPECT_TRUE(MD5(Bytes("abc"), 4).isEmpty());
}

int DigitValue(char16_t digit) {
  return digit <= u'9' ? digit - u'0' : digit - u'A' + 10;
}

TEST(NewIdTest, PrefixThenTwentyFiveBase32DigitsOfAVersion4Uuid) {
  const StringBuffer id = NewId(u"doc-");
  ASSERT_EQ(id.length(), 29);
  EXPECT_TRUE(id.startsWith(u"doc-"));
  EXPECT_TRUE(Regex(id.c_str(), u"doc-[0-9A-V]{25}"));
  // The UUID's version nibble (bits 48-51 of the stream) is 0100, and its variant (bits 64-65)
  // is 10. With five bits a digit, bits 48-49 end digit 9, bits 50-51 start digit 10, bit 64
  // ends digit 12 and bit 65 starts digit 13.
  const StringBuffer digits(id.getBuffer() + 4, 25);
  EXPECT_EQ(DigitValue(digits[9]) & 0x3, 0x1);
  EXPECT_EQ(DigitValue(digits[10]) >> 3, 0x0);
  EXPECT_EQ(DigitValue(digits[12]) & 0x1, 0x1);
  EXPECT_EQ(DigitValue(digits[13]) >> 4, 0x0);
  EXPECT_EQ(NewId(nullptr).length(), 25);
}

TEST(NewIdTest, IdsAreFresh) {
  std::set<std::u16string> seen;
  for (int i = 0; i < 1000; ++i)
    seen.insert(NewId().c_str());
  EXPECT_EQ(seen.size(), 1000u);
}

}  // namespace
}  // namespace Veskan
