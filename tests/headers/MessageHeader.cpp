// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Message.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, MessageStandsAlone) {
  const auto message = Veskan::Message::New();
  message->Open(Veskan::Methods::GET, u"http://h/");
  EXPECT_EQ(message->BlockUntil(Veskan::ReadyStates::Open, 0.0), Veskan::ReadyStates::Open);
}
