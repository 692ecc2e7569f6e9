// What a mapped ByteBuffer owns: the file, the object whose pages are mapped, and the view.
#ifndef VESKAN_FOUNDATION_MAPPEDFILE_H
#define VESKAN_FOUNDATION_MAPPEDFILE_H

#include "sys/File.h"

namespace Veskan {
namespace Detail {

class MappedFile {
 public:
  Sys::File file;
  Sys::File mapping;  // open only when the caller named a separate mapping object
  Sys::MappedView view;
  bool writable = false;

  // The descriptor whose pages are mapped.
  const Sys::File& Source() const { return mapping ? mapping : file; }
  Sys::File& Source() { return mapping ? mapping : file; }
};

}  // namespace Detail
}  // namespace Veskan

#endif
