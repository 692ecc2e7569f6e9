// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/SuiteFeatures.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, SuiteFeaturesStandsAlone) {
  auto& features = Veskan::SuiteFeatures::GetInstance();
  EXPECT_EQ(features
                .SupportsFeatureInMode(Veskan::SuiteFeatures::ConfigurationName,
                                       Veskan::SuiteFeatures::TallyoLE)
                ->GetDecisionId(),
            1);
}
