// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Cookie.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, CookieStandsAlone) {
  Veskan::Cookie::Collection cookies;
  cookies[u"a"]->Value = u"1";
  Veskan::Header::Collection headers;
  cookies.Write(Veskan::Header::Cookie, headers);
  EXPECT_EQ(headers.Count(), 1);
}
