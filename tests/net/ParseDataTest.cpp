// The per-connection parse state.
#include <veskan/Client.h>

#include <gtest/gtest.h>

namespace Veskan {
namespace {

using States = Client::ParseData::States;

TEST(ParseDataTest, StatesPrintOnlyTheNamedValues) {
  EXPECT_EQ(std::u16string(u"Waiting"), States::ToString(States::Waiting));
  EXPECT_EQ(std::u16string(u"ReadingHeaders"), States::ToString(States::ReadingHeaders));
  EXPECT_EQ(std::u16string(u"ReadingContent"), States::ToString(States::ReadingContent));
  EXPECT_EQ(std::u16string(u"SendingContent"), States::ToString(States::SendingContent));
  for (int value : {3, 4, 5, 7, -1}) {
    SCOPED_TRACE(value);
    EXPECT_EQ(std::u16string(u"##invalid value##"),
              States::ToString(static_cast<States::Enumeration>(value)));
  }
}

TEST(ParseDataTest, ResetAllKeepsTheReadBufferAndEmptiesTheRest) {
  Client::ParseData parse;
  parse.ResetAll();
  EXPECT_EQ(16384, parse.ReadBuffer.Size());
  EXPECT_EQ(0, parse.ContentBuffer.Size());
  EXPECT_EQ(States::Waiting, parse.State);

  parse.ContentBuffer.Resize(100);
  parse.ReadPosition = 10;
  parse.WritePosition = 20;
  parse.ContentLength = 100;
  parse.ContentReceived = 50;
  parse.Parts[0] = std::make_shared<Part>();
  parse.State = States::ReadingContent;
  parse.ResetAll();
  EXPECT_EQ(16384, parse.ReadBuffer.Size());
  EXPECT_EQ(0, parse.ContentBuffer.Size());
  EXPECT_EQ(0, parse.ReadPosition);
  EXPECT_EQ(0, parse.WritePosition);
  EXPECT_EQ(0, parse.ContentLength);
  EXPECT_EQ(0, parse.ContentReceived);
  EXPECT_TRUE(parse.Parts.empty());
  EXPECT_EQ(States::Waiting, parse.State);
}

}  // namespace
}  // namespace Veskan
