#include "sys/Turns.h"

#include <sched.h>

namespace Veskan {
namespace Sys {

int UsableProcessors() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (::sched_getaffinity(0, sizeof set, &set) != 0) return 1;
  int count = CPU_COUNT(&set);
  return count < 1 ? 1 : count;
}

}  // namespace Sys
}  // namespace Veskan
