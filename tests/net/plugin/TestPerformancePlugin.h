// A stand-in for the counters plug-in that the network performance monitor loads: it keeps what
// it was asked in one record, which the tests read through VeskanTestPerformance_Record.
#ifndef VESKAN_TESTS_TESTPERFORMANCEPLUGIN_H
#define VESKAN_TESTS_TESTPERFORMANCEPLUGIN_H

#include <atomic>
#include <cstdint>

namespace VeskanTesting {

// Counter values by number; 0 and 15 catch numbers outside the monitor's counters.
constexpr int TestPerformanceCounterSlots = 16;

struct TestPerformanceRecord {
  bool failCreate = false;  // set by a test: Create then returns 0
  int createCalls = 0;
  char16_t instanceName[64] = {};
  std::uint32_t handle = 0;  // the handle of the live instance, 0 when none
  int destroyCalls = 0;
  std::uint32_t destroyedHandle = 0;
  std::atomic<int> incCalls{0};
  std::atomic<int> zeroCalls{0};
  std::atomic<int> wrongHandleCalls{0};  // Inc or Zero with a handle other than the live one
  std::atomic<int> values[TestPerformanceCounterSlots] = {};
};

// The type of the plug-in's export "VeskanTestPerformance_Record", which returns its record.
using TestPerformanceRecordFunction = TestPerformanceRecord* (*)();

}  // namespace VeskanTesting

#endif
