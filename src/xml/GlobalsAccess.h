// Internal access to the process-wide state that Globals keeps: the library's XML and XPath code
// reads the DOM implementation and the engine's objects through here, and tests read the counts.
#ifndef VESKAN_XML_GLOBALSACCESS_H
#define VESKAN_XML_GLOBALSACCESS_H

#include <veskan/Globals.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace Veskan {
namespace Detail {

// One guarded step of the final shutdown: `release` runs inside a catch-all guard, and when it
// throws, `failureLine` and an end of line go to stderr before the next step runs.
struct ShutdownStep {
  const char* failureLine;
  void (*release)();
};

// Runs the steps in order, each in its own guard.
void RunShutdownSteps(const std::vector<ShutdownStep>& steps);

class GlobalsAccess {
 public:
  // Valid while a Globals lives.
  static xercesc::DOMImplementation* Implementation() { return Globals::impl.get(); }

  static std::int32_t InitCount() { return Globals::initcount.load(); }
  static const std::shared_ptr<std::recursive_mutex>& Mutex() { return Globals::mutex; }
  static const std::shared_ptr<XPathConfiguration>& Configuration() {
    return Globals::xpathConfiguration;
  }
  static const std::shared_ptr<XPathEngine>& Engine() { return Globals::xpathEngine; }
  static const std::shared_ptr<xercesc::DOMImplementation>& ImplementationPointer() {
    return Globals::impl;
  }
  static const std::shared_ptr<XPathMemoryManager>& MemoryManager() {
    return Globals::xpathMemoryManager;
  }
  static const std::shared_ptr<RDF>& Rdf() { return Globals::rdf; }

  static const std::shared_ptr<void>& Reserved(const Globals& globals) { return globals.reserved_; }
  static const std::shared_ptr<XPathEngine>& HeldEngine(const Globals& globals) {
    return globals.heldXPathEngine_;
  }
  static const std::shared_ptr<XPathConfiguration>& HeldConfiguration(const Globals& globals) {
    return globals.heldXPathConfiguration_;
  }

  // The guarded steps of the final shutdown, in the order they run.
  static const std::vector<ShutdownStep>& ShutdownSteps();
};

}  // namespace Detail
}  // namespace Veskan

#endif
