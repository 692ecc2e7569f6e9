// The process-wide objects of the library's XPath engine. Globals creates them at the first
// start-up and releases them, in a fixed order, at the final shutdown; expressions reach them
// through Detail::GlobalsAccess.
#ifndef VESKAN_XML_XPATH_XPATHRUNTIME_H
#define VESKAN_XML_XPATH_XPATHRUNTIME_H

#include <xercesc/framework/MemoryManager.hpp>

#include <atomic>
#include <cstddef>
#include <memory>

namespace Veskan {
namespace Detail {

// The engine's process-wide switch: up between Initialize and Terminate.
//
// Thread safety: any thread may ask; Globals alone switches it.
class XPathPlatform {
 public:
  static void Initialize();
  static void Terminate();
  static bool IsInitialized();
};

// The limits every expression is compiled and evaluated under, so that hostile expression text
// ends in an error rather than in unbounded work or a crash.
//
// Thread safety: immutable after construction.
class XPathConfiguration {
 public:
  // Longest expression text, in UTF-16 units, after variable substitution.
  int MaxExpressionLength() const { return 1 << 20; }
  // Deepest nesting of parentheses, predicates and function calls.
  int MaxNestingDepth() const { return 256; }
};

// The engine's front object: expressions are compiled through it, under its configuration.
//
// Thread safety: immutable after construction.
class XPathEngine {
 public:
  explicit XPathEngine(std::shared_ptr<const XPathConfiguration> configuration);
  const XPathConfiguration& Configuration() const { return *configuration_; }

 private:
  std::shared_ptr<const XPathConfiguration> configuration_;
};

// The Xerces memory manager that the engine's objects allocate from. It counts what is
// outstanding, so that a leak in the engine shows, and throws Xerces' OutOfMemoryException when
// memory runs out, as every Xerces memory manager does.
//
// Thread safety: allocate and deallocate may run on any thread.
class XPathMemoryManager : public xercesc::MemoryManager {
 public:
  XPathMemoryManager() = default;
  XPathMemoryManager(const XPathMemoryManager&) = delete;
  XPathMemoryManager& operator=(const XPathMemoryManager&) = delete;

  xercesc::MemoryManager* getExceptionMemoryManager() override;
  void* allocate(XMLSize_t size) override;
  void deallocate(void* block) override;

  // Blocks and bytes allocated and not yet deallocated.
  std::size_t OutstandingBlocks() const { return blocks_.load(); }
  std::size_t OutstandingBytes() const { return bytes_.load(); }

 private:
  std::atomic<std::size_t> blocks_{0};
  std::atomic<std::size_t> bytes_{0};
};

}  // namespace Detail
}  // namespace Veskan

#endif
