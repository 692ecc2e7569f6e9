// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/RDFGraph.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, RDFGraphStandsAlone) {
  Veskan::RDF::Graph graph;
  EXPECT_NE(static_cast<librdf_model*>(graph), nullptr);
}
