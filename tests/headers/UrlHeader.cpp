// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Url.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, UrlStandsAlone) {
  const Veskan::Url url(u"http://h:1/p");
  EXPECT_EQ(url.Port, 1);
  EXPECT_EQ(Veskan::Url::Encode(u" "), u"%20");
}
