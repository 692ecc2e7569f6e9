// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/IPC.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, IPCStandsAlone) {
  int value = 1;
  EXPECT_EQ(Veskan::IPC::AtomicIncrement(&value), 2);
}
