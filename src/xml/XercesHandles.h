// Owners for the Xerces objects that are freed with release(): parsers, serialisers, outputs.
#ifndef VESKAN_XML_XERCESHANDLES_H
#define VESKAN_XML_XERCESHANDLES_H

#include <memory>

namespace Veskan {
namespace Detail {

struct XercesReleaser {
  template <typename Releasable>
  void operator()(Releasable* object) const noexcept {
    object->release();
  }
};

template <typename Releasable>
using XercesHandle = std::unique_ptr<Releasable, XercesReleaser>;

}  // namespace Detail
}  // namespace Veskan

#endif
