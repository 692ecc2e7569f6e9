// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/XmlSchema.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, XmlSchemaStandsAlone) {
  const auto doc = Veskan::XmlSchema::NewDoc(u"<a/>");
  EXPECT_EQ(Veskan::XmlNodeType::Of(Veskan::XmlSchema::DocumentElement(doc)),
            Veskan::XmlNodeType::Element);
}
