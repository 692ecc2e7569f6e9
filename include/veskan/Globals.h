// Globals: the process-wide start-up and shutdown of Xerces-C, the library's XPath engine and
// librdf.
#ifndef VESKAN_GLOBALS_H
#define VESKAN_GLOBALS_H

#include <veskan/Export.h>
#include <veskan/RDF.h>

#include <xercesc/util/XercesDefs.hpp>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

XERCES_CPP_NAMESPACE_BEGIN
class DOMImplementation;
XERCES_CPP_NAMESPACE_END

namespace Veskan {

namespace Detail {
class GlobalsAccess;
class XPathConfiguration;
class XPathEngine;
class XPathMemoryManager;
}  // namespace Detail

// While a Globals object lives, Xerces, the XPath engine and the librdf world are up. The first
// living object starts them; the last one takes them down only when it is destroyed through
// Helpers::PlatformSpecificCleanup(..., true). Destroyed any other way (for instance while the
// library is being unloaded, when tearing down is unsafe) the last one leaves them up until the
// process ends, and a later Globals finds them ready.
//
// A host makes one at the start of main (or in its application object) and destroys it at the
// end. Every XML operation of the library also holds one for its own duration, and every
// XmlDocument holds one for as long as it lives, so the libraries come up on first use even in a
// host that made none, and a clean-up never tears them down under a document that is still alive:
// it then leaves them up, and the last object to go decides as above.
//
// Copying adds no count, yet the copy's destruction counts down: never copy these objects.
//
// Thread safety: any thread may make and destroy Globals at any time. Start-up and shutdown are
// serialised by one process-wide mutex, which also guards the count's changes between 0 and 1,
// so a thread always finds the libraries either fully up or fully down; while a thread holds a
// Globals they stay up. Counting up from a count already held, and down to a count still held,
// takes no lock. PlatformSpecificCleanup's flag holds for the thread that calls it: a Globals that
// another thread destroys meanwhile counts down as any other, and when it is the last one it
// leaves the libraries up. The final shutdown also runs ICU's u_cleanup(): threads that use ICU
// outside of any XML or RDF operation must be done with it before a host cleans up.
class VESKAN_API Globals {
 public:
  // For the host to publish its Globals; the library never sets it, final shutdown clears it.
  static Globals* Instance;

  // Counts up; on the first count starts the libraries. An exception from Xerces or librdf
  // during start-up leaves the constructor, with the count already taken.
  Globals();
  // Copies the held pointers; does not count up.
  Globals(const Globals& other);
  Globals& operator=(const Globals&) = delete;
  // Counts down; the last one shuts the libraries down when the platform clean-up flag is set,
  // and otherwise keeps the count at 1. Never throws: a failing shutdown step writes one line to
  // stderr and the next step runs.
  virtual ~Globals();

 private:
  friend class Detail::GlobalsAccess;

  static void StartUp();
  static void ShutDown();

  // The number of living Globals objects (constructions less destructions, kept at 1 by a
  // last destruction outside clean-up).
  static std::atomic<std::int32_t> initcount;
  // Created at start-up for the library's use; Globals itself never takes it.
  static std::shared_ptr<std::recursive_mutex> mutex;
  // The XPath engine's configuration, which binds it to the Xerces DOM.
  static std::shared_ptr<Detail::XPathConfiguration> xpathConfiguration;
  // The XPath engine's front object.
  static std::shared_ptr<Detail::XPathEngine> xpathEngine;
  // The DOM implementation every document, parser and serialiser comes from; owned by Xerces'
  // registry, so the pointer never deletes it.
  static std::shared_ptr<xercesc::DOMImplementation> impl;
  // The memory manager of the XPath engine's objects.
  static std::shared_ptr<Detail::XPathMemoryManager> xpathMemoryManager;
  // Keeps the librdf world alive.
  static std::shared_ptr<RDF> rdf;

  std::shared_ptr<void> reserved_;  // reserved: nothing assigns it
  // Copies taken before start-up runs: empty in the very first object.
  std::shared_ptr<Detail::XPathEngine> heldXPathEngine_;
  std::shared_ptr<Detail::XPathConfiguration> heldXPathConfiguration_;
  std::shared_ptr<xercesc::DOMImplementation>& impl_;
  std::shared_ptr<Detail::XPathMemoryManager>& xpathMemoryManager_;
  std::shared_ptr<RDF>& rdf_;
};

}  // namespace Veskan

#endif
