// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Vocabulary.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, VocabularyStandsAlone) {
  EXPECT_EQ(Veskan::Schemes::DefaultPort(Veskan::Schemes::HTTPS), 443);
}
