// Globals: start-up and shutdown of Xerces-C, the XPath engine and librdf.
#include <veskan/Globals.h>

#include "xml/GlobalsAccess.h"
#include "xml/LifeCount.h"
#include "xml/PlatformCleanup.h"
#include "xml/xpath/XPathRuntime.h"

#include <xercesc/dom/DOMImplementation.hpp>
#include <xercesc/dom/DOMImplementationRegistry.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include <unicode/uclean.h>

#include <iostream>
#include <mutex>

namespace Veskan {

Globals* Globals::Instance = nullptr;
std::atomic<std::int32_t> Globals::initcount{0};
std::shared_ptr<std::recursive_mutex> Globals::mutex;
std::shared_ptr<Detail::XPathConfiguration> Globals::xpathConfiguration;
std::shared_ptr<Detail::XPathEngine> Globals::xpathEngine;
std::shared_ptr<xercesc::DOMImplementation> Globals::impl;
std::shared_ptr<Detail::XPathMemoryManager> Globals::xpathMemoryManager;
std::shared_ptr<RDF> Globals::rdf;

namespace {

// Serialises the count's changes between 0 and 1 with the start-up and shutdown they bring: a
// thread sees the libraries either fully up or fully down. Never destroyed, since a Globals may
// die during static destruction.
std::mutex& Lifecycle() {
  static std::mutex* const lifecycle = new std::mutex;
  return *lifecycle;
}

}  // namespace

namespace Detail {

void RunShutdownSteps(const std::vector<ShutdownStep>& steps) {
  for (const ShutdownStep& step : steps) {
    try {
      step.release();
    } catch (...) {
      std::cerr << step.failureLine << std::endl;
    }
  }
}

const std::vector<ShutdownStep>& GlobalsAccess::ShutdownSteps() {
  // The texts are the ones operators and support know from the field; the library names in them
  // stay as they have always been written.
  static const std::vector<ShutdownStep> steps{
      {"C++ exception occured shutting down librdf. Not all the memory used by it may have been "
       "freed.",
       [] { Globals::rdf.reset(); }},
      {"C++ exception occured shutting down xerces_2_8::DOMImplementation. Not all the memory "
       "used by it may have been freed.",
       [] { Globals::impl.reset(); }},
      {"C++ exception occured shutting down XQillaXPath2MemoryManager. Not all the memory used by "
       "it may have been freed.",
       [] { Globals::xpathMemoryManager.reset(); }},
      {"C++ exception occured shutting down XQilla. Not all the memory used by it may have been "
       "freed.",
       [] { Globals::xpathEngine.reset(); }},
      {"C++ exception occured shutting down XQillaXercesConfiguration. Not all the memory used by "
       "it may have been freed.",
       [] { Globals::xpathConfiguration.reset(); }},
      {"C++ exception occured in XQillaPlatformUtils::terminate(). Not all the memory used by "
       "XPath and XQuery features in the Veskan dynamic library may have been freed.",
       [] { XPathPlatform::Terminate(); }},
      {"C++ exception occured in xerces_c_2_8::XMLPlatformUtils::Terminate(). Not all the memory "
       "used by XML features in the Veskan dynamic library may have been freed.",
       [] { xercesc::XMLPlatformUtils::Terminate(); }},
  };
  return steps;
}

}  // namespace Detail

Globals::Globals() : impl_(impl), xpathMemoryManager_(xpathMemoryManager), rdf_(rdf) {
  if (Detail::CountUpWhileHeld(initcount)) {
    // Up, and kept up by the count just taken.
    heldXPathEngine_ = xpathEngine;
    heldXPathConfiguration_ = xpathConfiguration;
    return;
  }
  std::lock_guard<std::mutex> lock(Lifecycle());
  // Taken before start-up runs: empty in the object that starts the libraries.
  heldXPathEngine_ = xpathEngine;
  heldXPathConfiguration_ = xpathConfiguration;
  if (initcount.load() == 0) {
    // Started before counted, so that no thread counting up without the lock finds them half
    // ready. A failing start-up still takes its count, as it always has.
    try {
      StartUp();
    } catch (...) {
      initcount.fetch_add(1);
      throw;
    }
  }
  initcount.fetch_add(1);
}

Globals::Globals(const Globals& other)
    : reserved_(other.reserved_),
      heldXPathEngine_(other.heldXPathEngine_),
      heldXPathConfiguration_(other.heldXPathConfiguration_),
      impl_(other.impl_),
      xpathMemoryManager_(other.xpathMemoryManager_),
      rdf_(other.rdf_) {}

Globals::~Globals() {
  reserved_.reset();
  if (!Detail::CountDownWhileOthersHold(initcount)) {
    std::lock_guard<std::mutex> lock(Lifecycle());
    // The last Globals dying outside PlatformSpecificCleanup (during unloading, say), when
    // tearing down is unsafe, keeps its count: the libraries stay up until the process ends.
    if (Detail::CountDownLocked(initcount, !Detail::PlatformCleanupRequested())) ShutDown();
  }
  heldXPathConfiguration_.reset();
  heldXPathEngine_.reset();
  reserved_.reset();
}

void Globals::StartUp() {
  mutex = std::make_shared<std::recursive_mutex>();
  xercesc::XMLPlatformUtils::Initialize("en_US", nullptr, nullptr, nullptr);
  Detail::XPathPlatform::Initialize();
  xpathConfiguration = std::make_shared<Detail::XPathConfiguration>();
  xpathEngine = std::make_shared<Detail::XPathEngine>(xpathConfiguration);
  // Xerces has no "XPath2" feature; "XPath" is the DOM level 3 XPath feature it does know. The
  // registry owns the implementation, so the pointer deletes nothing.
  impl = std::shared_ptr<xercesc::DOMImplementation>(
      xercesc::DOMImplementationRegistry::getDOMImplementation(u"XPath 3.0 LS"),
      [](xercesc::DOMImplementation*) {});
  xpathMemoryManager = std::make_shared<Detail::XPathMemoryManager>();
  rdf = std::make_shared<RDF>();
}

void Globals::ShutDown() {
  Detail::RunShutdownSteps(Detail::GlobalsAccess::ShutdownSteps());
  u_cleanup();
  Instance = nullptr;
  mutex.reset();
}

}  // namespace Veskan
