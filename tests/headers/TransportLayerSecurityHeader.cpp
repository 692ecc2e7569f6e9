// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/TransportLayerSecurity.h>

#include <gtest/gtest.h>

#include <string>

TEST(PublicHeaders, TransportLayerSecurityStandsAlone) {
  using Veskan::TransportLayerSecurity;
  TransportLayerSecurity::StatusCodes::Enumeration status = TransportLayerSecurity::StatusCodes::Ok;
  EXPECT_EQ(TransportLayerSecurity::CreateServer(nullptr, nullptr, &status), nullptr);
  EXPECT_EQ(status, TransportLayerSecurity::StatusCodes::NoCertificate);
  EXPECT_EQ(std::u16string(TransportLayerSecurity::StatusCodes::ToString(status)),
            u"NoCertificate");
}
