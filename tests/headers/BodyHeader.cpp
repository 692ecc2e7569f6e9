// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Body.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, BodyStandsAlone) {
  Veskan::Body body;
  body.Parts.Add(std::make_shared<Veskan::Part>());
  body.FormatMultipartMessage();
  EXPECT_EQ(body.MediaType.TypeAndSubtype, u"multipart/mixed");
}
