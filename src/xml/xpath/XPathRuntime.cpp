// The process-wide objects of the XPath engine.
#include "xml/xpath/XPathRuntime.h"

#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include <cstdlib>
#include <new>
#include <utility>

namespace Veskan {
namespace Detail {

namespace {

std::atomic<bool> engineUp{false};

// Every block starts with its size, kept in a header aligned like malloc's blocks.
constexpr std::size_t HeaderSize = alignof(std::max_align_t);

}  // namespace

void XPathPlatform::Initialize() {
  engineUp.store(true);
}

void XPathPlatform::Terminate() {
  engineUp.store(false);
}

bool XPathPlatform::IsInitialized() {
  return engineUp.load();
}

XPathEngine::XPathEngine(std::shared_ptr<const XPathConfiguration> configuration)
    : configuration_(std::move(configuration)) {}

xercesc::MemoryManager* XPathMemoryManager::getExceptionMemoryManager() {
  return xercesc::XMLPlatformUtils::fgMemoryManager;
}

void* XPathMemoryManager::allocate(XMLSize_t size) {
  if (size > static_cast<XMLSize_t>(-1) - HeaderSize) throw xercesc::OutOfMemoryException();
  unsigned char* block = static_cast<unsigned char*>(std::malloc(size + HeaderSize));
  if (!block) throw xercesc::OutOfMemoryException();
  *reinterpret_cast<std::size_t*>(block) = size;
  blocks_.fetch_add(1);
  bytes_.fetch_add(size);
  return block + HeaderSize;
}

void XPathMemoryManager::deallocate(void* block) {
  if (!block) return;
  unsigned char* start = static_cast<unsigned char*>(block) - HeaderSize;
  blocks_.fetch_sub(1);
  bytes_.fetch_sub(*reinterpret_cast<std::size_t*>(start));
  std::free(start);
}

}  // namespace Detail
}  // namespace Veskan
