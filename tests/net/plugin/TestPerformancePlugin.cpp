// The counters plug-in stand-in. Built twice: with every export, and with
// VESKAN_TEST_PLUGIN_WITHOUT_ZERO defined, without VeskanNetworkPerfMon_Zero.
#include "TestPerformancePlugin.h"

#include <cstddef>

namespace {

VeskanTesting::TestPerformanceRecord record;

// Handles are not 0 or 1, so that a monitor passing anything but what Create gave shows up.
constexpr std::uint32_t FirstHandle = 0x5EED0;

bool IsLive(std::uint32_t handle) {
  return handle != 0 && handle == record.handle;
}

std::atomic<int>* Slot(int counter) {
  if (counter > 0 && counter < VeskanTesting::TestPerformanceCounterSlots - 1) {
    return &record.values[counter];
  }
  return counter == 0 ? &record.values[0]
                      : &record.values[VeskanTesting::TestPerformanceCounterSlots - 1];
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) VeskanTesting::TestPerformanceRecord*
VeskanTestPerformance_Record() {
  return &record;
}

__attribute__((visibility("default"))) std::uint32_t VeskanNetworkPerfMon_Create(
    const char16_t* instanceName) {
  ++record.createCalls;
  std::size_t length = 0;
  constexpr std::size_t capacity = sizeof(record.instanceName) / sizeof(record.instanceName[0]);
  for (; instanceName != nullptr && instanceName[length] != u'\0' && length + 1 < capacity;
       ++length) {
    record.instanceName[length] = instanceName[length];
  }
  record.instanceName[length] = u'\0';
  if (record.failCreate) return 0;
  record.handle = FirstHandle + static_cast<std::uint32_t>(record.createCalls);
  return record.handle;
}

__attribute__((visibility("default"))) void VeskanNetworkPerfMon_Destroy(std::uint32_t handle) {
  ++record.destroyCalls;
  record.destroyedHandle = handle;
  if (IsLive(handle)) record.handle = 0;
}

__attribute__((visibility("default"))) void VeskanNetworkPerfMon_Inc(std::uint32_t handle,
                                                                     int counter, int amount) {
  ++record.incCalls;
  if (!IsLive(handle)) {
    ++record.wrongHandleCalls;
    return;
  }
  *Slot(counter) += amount;
}

#ifndef VESKAN_TEST_PLUGIN_WITHOUT_ZERO
__attribute__((visibility("default"))) void VeskanNetworkPerfMon_Zero(std::uint32_t handle,
                                                                      int counter) {
  ++record.zeroCalls;
  if (!IsLive(handle)) {
    ++record.wrongHandleCalls;
    return;
  }
  if (counter == -1) {
    for (std::atomic<int>& value : record.values)
      value = 0;
  } else {
    *Slot(counter) = 0;
  }
}
#endif

}  // extern "C"
