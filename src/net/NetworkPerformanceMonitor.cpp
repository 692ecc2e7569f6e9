// NetworkPerformanceMonitor: the optional counters plug-in, loaded at run time.
#include <veskan/NetworkPerformanceMonitor.h>

#include <veskan/Logger.h>

#include "sys/DynamicLibrary.h"

namespace Veskan {

namespace {

constexpr char DefaultLibrary[] = "libVeskanPerformance.so";

// The plug-in's export `name` as a function of type `Function`, or null.
template <typename Function>
Function Export(const Sys::DynamicLibrary& library, const char* name) {
  return reinterpret_cast<Function>(library.Symbol(name));
}

}  // namespace

const char16_t* NetworkPerformanceMonitor::Counters::ToString(Enumeration value) {
  switch (value) {
    case AllCounters:
      return u"AllCounters";
    case RequestsReceived:
      return u"RequestsReceived";
    case RepliesSent:
      return u"RepliesSent";
    case ProtocolViolations:
      return u"ProtocolViolations";
    case BytesReceived:
      return u"BytesReceived";
    case BytesSent:
      return u"BytesSent";
    case ConnectionsAccepted:
      return u"ConnectionsAccepted";
    case ConnectionsClosed:
      return u"ConnectionsClosed";
    case DaemonsRunning:
      return u"DaemonsRunning";
    case WritableEvents:
      return u"WritableEvents";
    case ReadableEvents:
      return u"ReadableEvents";
    case WebSocketMessages:
      return u"WebSocketMessages";
    case PartsReceived:
      return u"PartsReceived";
    case OutgoingConnections:
      return u"OutgoingConnections";
    case OpenConnections:
      return u"OpenConnections";
  }
  return u"##invalid value##";
}

NetworkPerformanceMonitor::NetworkPerformanceMonitor(const char16_t* instanceName)
    : NetworkPerformanceMonitor(instanceName, DefaultLibrary) {}

NetworkPerformanceMonitor::NetworkPerformanceMonitor(const char16_t* instanceName,
                                                     const char* library)
    : library_(std::make_unique<Sys::DynamicLibrary>()) {
  const char16_t* name = instanceName != nullptr ? instanceName : u"";
  if (!library_->Open(library)) {
    // The plug-in is optional: its absence is the normal case.
    Logger::Line(Logger::Severity::Debug,
                 "Veskan::NetworkPerformanceMonitor::NetworkPerformanceMonitor")
        << " instance: " << name << " library: " << (library != nullptr ? library : "")
        << " error: " << library_->Error();
    return;
  }
  create_ = Export<CreateFunction>(*library_, "VeskanNetworkPerfMon_Create");
  destroy_ = Export<DestroyFunction>(*library_, "VeskanNetworkPerfMon_Destroy");
  inc_ = Export<IncFunction>(*library_, "VeskanNetworkPerfMon_Inc");
  zero_ = Export<ZeroFunction>(*library_, "VeskanNetworkPerfMon_Zero");
  // Without Destroy an instance could not be given back; without Inc it would be useless.
  if (create_ != nullptr && destroy_ != nullptr && inc_ != nullptr) handle_ = create_(name);
  Logger::Line(Logger::Severity::Trace,
               "Veskan::NetworkPerformanceMonitor::NetworkPerformanceMonitor")
      << " instance: " << name << " library: " << library << " handle: " << handle_
      << " zero: " << (zero_ != nullptr);
}

NetworkPerformanceMonitor::~NetworkPerformanceMonitor() {
  if (handle_ != 0) destroy_(handle_);
  handle_ = 0;
  // library_ unloads the plug-in after this body, so no call into it can follow.
}

void NetworkPerformanceMonitor::Increment(Counters::Enumeration counter, int amount) {
  if (handle_ != 0) inc_(handle_, counter, amount);
}

void NetworkPerformanceMonitor::Decrement(Counters::Enumeration counter) {
  Increment(counter, -1);
}

void NetworkPerformanceMonitor::Reset(Counters::Enumeration counter) {
  if (handle_ != 0 && zero_ != nullptr) zero_(handle_, counter);
}

void NetworkPerformanceMonitor::Reset() {
  Reset(Counters::AllCounters);
}

}  // namespace Veskan
