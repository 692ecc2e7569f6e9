// The platform clean-up flag: set while Helpers::PlatformSpecificCleanup destroys a Globals, for
// the calling thread, and read by the Globals destructor to decide whether the last one really
// shuts down.
#ifndef VESKAN_XML_PLATFORMCLEANUP_H
#define VESKAN_XML_PLATFORMCLEANUP_H

namespace Veskan {
namespace Detail {

bool PlatformCleanupRequested();

}  // namespace Detail
}  // namespace Veskan

#endif
