// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/RDF.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, RDFStandsAlone) {
  Veskan::RDF rdf;
  EXPECT_NE(Veskan::RDF::world, nullptr);
}
