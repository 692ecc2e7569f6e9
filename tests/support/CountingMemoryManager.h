// A Xerces memory manager that counts the bytes it has handed out and not taken back. A document
// parsed with it draws its whole heap from it, so the count is the document's size. Used by the
// XML heap tests and the long-lived document benchmark.
#ifndef VESKAN_TESTS_COUNTINGMEMORYMANAGER_H
#define VESKAN_TESTS_COUNTINGMEMORYMANAGER_H

#include <xercesc/framework/MemoryManager.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include <cstddef>
#include <cstdlib>
#include <new>

namespace Veskan {
namespace Testing {

class CountingMemoryManager : public xercesc::MemoryManager {
 public:
  xercesc::MemoryManager* getExceptionMemoryManager() override {
    return xercesc::XMLPlatformUtils::fgMemoryManager;
  }
  void* allocate(XMLSize_t size) override {
    auto* block = static_cast<std::max_align_t*>(std::malloc(size + sizeof(std::max_align_t)));
    if (!block) throw std::bad_alloc();
    *reinterpret_cast<XMLSize_t*>(block) = size;
    outstanding_ += size;
    return block + 1;
  }
  void deallocate(void* pointer) override {
    if (!pointer) return;
    auto* block = static_cast<std::max_align_t*>(pointer) - 1;
    outstanding_ -= *reinterpret_cast<XMLSize_t*>(block);
    std::free(block);
  }
  std::size_t Outstanding() const { return outstanding_; }

 private:
  std::size_t outstanding_ = 0;
};

}  // namespace Testing
}  // namespace Veskan

#endif
