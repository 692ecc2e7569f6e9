// The engine's messages take their bodies from a pool: every request needs two, and building a
// body's header list, media type and collections costs more than renewing a used one.
#ifndef VESKAN_HTTP_POOLED_H
#define VESKAN_HTTP_POOLED_H

#include <veskan/Body.h>
#include <veskan/Content.h>

#include <memory>

namespace Veskan {
namespace Detail {

// A new empty body, as Body() makes it. When the last owner lets it go it is emptied and kept
// for the next caller; weak pointers to it expire as usual.
std::shared_ptr<Body> NewBody();

// Back to "application/octet-stream" without parameters, as MediaType() makes it; a type that
// is still the default is left as it is.
void RenewMediaType(MediaType& type);

}  // namespace Detail
}  // namespace Veskan

#endif
