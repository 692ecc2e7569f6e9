// The protocol vocabulary: reason phrases, names and the scheme rules.
#include <veskan/StringBuffer.h>
#include <veskan/Vocabulary.h>

#include <gtest/gtest.h>

namespace Veskan {
namespace {

std::u16string Text(const char16_t* text) {
  return text;
}

TEST(StatusCodesTest, ReasonPhrases) {
  EXPECT_EQ(Text(StatusCodes::DefaultReasonPhrase(StatusCodes::OK)), u"OK");
  EXPECT_EQ(Text(StatusCodes::DefaultReasonPhrase(408)), u"Request Time-out");
  EXPECT_EQ(Text(StatusCodes::DefaultReasonPhrase(414)), u"Request-URI Too Large");
  EXPECT_EQ(Text(StatusCodes::DefaultReasonPhrase(505)), u"HTTP Version not supported");
  EXPECT_EQ(Text(StatusCodes::DefaultReasonPhrase(101)), u"Switching Protocols");
  for (int code : {StatusCodes::Continue, 102, 207, 306, 416, 506, 0, -404}) {
    SCOPED_TRACE(code);
    EXPECT_EQ(Text(StatusCodes::DefaultReasonPhrase(code)), u"Unspecified Server Error");
  }
}

TEST(StatusCodesTest, SuccessIsTheTwoHundreds) {
  EXPECT_TRUE(StatusCodes::Success(200));
  EXPECT_TRUE(StatusCodes::Success(299));
  EXPECT_FALSE(StatusCodes::Success(300));
  EXPECT_FALSE(StatusCodes::Success(199));
  EXPECT_FALSE(StatusCodes::Success(-250));
}

TEST(EnumerationTextsTest, NamesAndFallbacks) {
  EXPECT_EQ(Text(Methods::ToString(Methods::WEBSOCKETMESSAGE)), u"WEBSOCKETMESSAGE");
  EXPECT_EQ(Text(Methods::ToString(static_cast<Methods::Enumeration>(8))), u"##invalid value##");
  EXPECT_EQ(Text(ClientStates::ToString(ClientStates::Disconnecting)), u"Disconnecting");
  EXPECT_EQ(Text(ServerStates::ToString(static_cast<ServerStates::Enumeration>(-1))),
            u"##invalid value##");
  EXPECT_EQ(Text(ReadyStates::ToString(ReadyStates::Loaded)), u"Loaded");
  EXPECT_LT(ReadyStates::Sent, ReadyStates::Loaded);
  EXPECT_EQ(Text(SocketExceptions::ToString(SocketExceptions::HTTPProtocolViolation)),
            u"HTTP Protocol violation");
  EXPECT_EQ(Text(SocketExceptions::ToString(SocketExceptions::NoMoreData)), u"No more data");
  EXPECT_EQ(SocketExceptions::DefaultException(6), -1);
  EXPECT_EQ(Text(SocketExceptions::ToString(SocketExceptions::DefaultException(0))),
            u"##unknown exception##");
  EXPECT_EQ(Text(XmlNodeType::ToString(XmlNodeType::Attribute)), u"Attribute");
}

TEST(SchemesTest, NamesPortsAndDefaults) {
  EXPECT_EQ(Text(Schemes::SchemeName(Schemes::HTTPS)), u"https://");
  EXPECT_EQ(Text(Schemes::SchemeName(static_cast<Schemes::Enumeration>(2))), u"");
  EXPECT_EQ(Schemes::DefaultPort(Schemes::HTTP), 80);
  EXPECT_EQ(Schemes::DefaultPort(Schemes::HTTPS), 443);
  EXPECT_EQ(Schemes::DefaultPort(static_cast<Schemes::Enumeration>(5)), 0);
  EXPECT_EQ(Schemes::DefaultScheme(443), Schemes::HTTPS);
  EXPECT_EQ(Schemes::DefaultScheme(8443), Schemes::HTTP);
  EXPECT_EQ(Schemes::DefaultScheme(80), Schemes::HTTP);
}

}  // namespace
}  // namespace Veskan
