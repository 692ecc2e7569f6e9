// Includes nothing but its header: the header must stand alone.
#include <veskan/EngineSignal.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, EngineSignalStandsAlone) {
  Veskan::EngineSignal<int&> signal;
  EXPECT_FALSE(signal.Heard());
  signal.connect(1, [](int& value) { value += 1; });
  signal.connect_extended([](const boost::signals2::connection&, int& value) { value *= 10; });
  int value = 1;
  signal(value);
  EXPECT_EQ(value, 20);
  signal.Forget();
  EXPECT_TRUE(signal.empty());
  EXPECT_FALSE(signal.Heard());
}
