// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/NetworkPerformanceMonitor.h>

#include <gtest/gtest.h>

#include <string>

TEST(PublicHeaders, NetworkPerformanceMonitorStandsAlone) {
  using Counters = Veskan::NetworkPerformanceMonitor::Counters;
  EXPECT_EQ(std::u16string(u"BytesSent"), Counters::ToString(Counters::BytesSent));
  Veskan::NetworkPerformanceMonitor monitor(u"header", "/nonexistent/libVeskanPerformance.so");
  EXPECT_FALSE(monitor.Active());
}
