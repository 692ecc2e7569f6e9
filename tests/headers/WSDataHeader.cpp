// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/WSData.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, WSDataStandsAlone) {
  Veskan::WSData data;
  data.Method = Veskan::Methods::WEBSOCKETMESSAGE;
  data.Messages.push_back(Veskan::StringBuffer(u"hi"));
  Veskan::WSData copy(data);
  EXPECT_EQ(copy.Method, Veskan::Methods::WEBSOCKETMESSAGE);
  ASSERT_EQ(copy.Messages.size(), 1u);
  EXPECT_EQ(copy.Messages[0], u"hi");
}
