// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Logger.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, LoggerStandsAlone) {
  EXPECT_FALSE(Veskan::Logger::IsEnabled(Veskan::Logger::Severity::Off));
}
