// The process's heap, as the operating system sees it.
#ifndef VESKAN_SYS_MEMORY_H
#define VESKAN_SYS_MEMORY_H

namespace Veskan {
namespace Sys {

// Gives the pages of freed heap memory back to the system, in every arena of the allocator.
// Threads that come and go each leave an arena of freed blocks behind, which the allocator keeps
// resident; a thread that ends calls this. Costs a walk over the free lists; nothing where the
// allocator cannot do it.
void ReleaseFreeMemory();

}  // namespace Sys
}  // namespace Veskan

#endif
