// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Server.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, ServerStandsAlone) {
  EXPECT_EQ(Veskan::Server::Log::Parse(u"Warnings"), Veskan::Server::Log::Warning);
  EXPECT_EQ(Veskan::Server::Log::StartCount(), 0);
}
