// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Header.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, HeaderStandsAlone) {
  Veskan::Header::Collection headers;
  headers[Veskan::Header::Host] = u"h";
  Veskan::ByteBuffer block;
  EXPECT_EQ(headers.Write(block, 0, true), 11);
}
