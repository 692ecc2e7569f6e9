// NetworkPerformanceMonitor: the network engine's counters (connections, requests, bytes and the
// like), published to the system's performance tooling through an optional plug-in library.
#ifndef VESKAN_NETWORKPERFORMANCEMONITOR_H
#define VESKAN_NETWORKPERFORMANCEMONITOR_H

#include <veskan/Export.h>

#include <cstdint>
#include <memory>

namespace Veskan {

namespace Sys {
class DynamicLibrary;
}

// One instance of the counters, kept by the plug-in library "libVeskanPerformance.so". The plug-in
// exports, with C linkage:
//   std::uint32_t VeskanNetworkPerfMon_Create(const char16_t* instanceName);  // 0: failed
//   void VeskanNetworkPerfMon_Destroy(std::uint32_t handle);
//   void VeskanNetworkPerfMon_Inc(std::uint32_t handle, int counter, int amount);
//   void VeskanNetworkPerfMon_Zero(std::uint32_t handle, int counter);  // -1: every counter
// The instance is created only when Create, Destroy and Inc are all exported. Without the
// plug-in, or without an instance, every operation does nothing, so the engine runs the same
// with or without it.
//
// Thread safety: Increment, Decrement and Reset may be called from several threads at once (the
// daemons' workers share one monitor); they call the plug-in without a lock, and the plug-in
// keeps its counters consistent itself. Construction and destruction are not concurrent with any
// other operation.
class VESKAN_API NetworkPerformanceMonitor {
 public:
  class VESKAN_API Counters {
   public:
    enum Enumeration : int {
      AllCounters = -1,  // for Reset only
      RequestsReceived = 1,
      RepliesSent = 2,
      ProtocolViolations = 3,
      BytesReceived = 4,
      BytesSent = 5,
      ConnectionsAccepted = 6,
      ConnectionsClosed = 7,
      DaemonsRunning = 8,
      WritableEvents = 9,
      ReadableEvents = 10,
      WebSocketMessages = 11,
      PartsReceived = 12,
      OutgoingConnections = 13,
      OpenConnections = 14,
    };
    // The member's name, or "##invalid value##" for any other value.
    static const char16_t* ToString(Enumeration value);
  };

  // Loads the plug-in from the system's library search path and creates an instance named
  // `instanceName` (null: the empty name).
  explicit NetworkPerformanceMonitor(const char16_t* instanceName);
  // The same with the plug-in taken from `library`: a file name looked up on the search path, or
  // a path holding a '/'.
  NetworkPerformanceMonitor(const char16_t* instanceName, const char* library);
  NetworkPerformanceMonitor(const NetworkPerformanceMonitor&) = delete;
  NetworkPerformanceMonitor& operator=(const NetworkPerformanceMonitor&) = delete;
  // Destroys the instance, then unloads the plug-in.
  virtual ~NetworkPerformanceMonitor();

  // Adds `amount` (which may be negative) to `counter`.
  void Increment(Counters::Enumeration counter, int amount);
  // Subtracts one from `counter`.
  void Decrement(Counters::Enumeration counter);
  // Sets `counter` to zero (every counter for AllCounters); nothing when the plug-in has no Zero.
  void Reset(Counters::Enumeration counter);
  // Sets every counter to zero.
  void Reset();

  // True when the plug-in gave an instance, so that the operations reach it.
  bool Active() const { return handle_ != 0; }

 private:
  using CreateFunction = std::uint32_t (*)(const char16_t*);
  using DestroyFunction = void (*)(std::uint32_t);
  using IncFunction = void (*)(std::uint32_t, int, int);
  using ZeroFunction = void (*)(std::uint32_t, int);

  std::unique_ptr<Sys::DynamicLibrary> library_;
  CreateFunction create_ = nullptr;
  DestroyFunction destroy_ = nullptr;
  IncFunction inc_ = nullptr;
  ZeroFunction zero_ = nullptr;
  std::uint32_t handle_ = 0;
};

}  // namespace Veskan

#endif
