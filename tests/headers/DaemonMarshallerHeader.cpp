// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/DaemonMarshaller.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, DaemonMarshallerStandsAlone) {
  Veskan::DaemonMarshaller marshaller(true);
  Veskan::DaemonMarshaller::VoidSignal signal;
  int calls = 0;
  signal.connect([&calls] { ++calls; });
  marshaller.Marshal_Void(signal);
  EXPECT_EQ(1, calls);
}
