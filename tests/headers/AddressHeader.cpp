// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/Address.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, AddressStandsAlone) {
  const Veskan::Address address(u"10.1.2.3", 80, Veskan::Address::NslookupOnlyIfNeeded);
  ASSERT_EQ(address.Addresses.Count(), 1);
  EXPECT_EQ(address.Addresses[0], u"10.1.2.3");
  EXPECT_FALSE(Veskan::Address::LocalMachineHardwareAddress().isEmpty());
}
