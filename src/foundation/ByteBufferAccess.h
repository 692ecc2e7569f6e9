// Lets the library's converters fill a ByteBuffer's heap block directly, without the zero-fill
// and copies of the public interface.
#ifndef VESKAN_FOUNDATION_BYTEBUFFERACCESS_H
#define VESKAN_FOUNDATION_BYTEBUFFERACCESS_H

#include <veskan/ByteBuffer.h>

namespace Veskan {
namespace Detail {

class ByteBufferAccess {
 public:
  // Turns `buffer` into an empty heap buffer with room for `capacity` bytes plus the terminator
  // and returns its block (null when memory runs out).
  static unsigned char* PrepareEmpty(ByteBuffer& buffer, int capacity);
  // Grows the heap block of `buffer` to hold `capacity` bytes, keeping its bytes; returns the block
  // (null when memory runs out, the buffer unchanged).
  static unsigned char* Grow(ByteBuffer& buffer, int capacity);
  // Declares the first `length` bytes of the block written, terminates them, and gives back a
  // large unused tail.
  static void Commit(ByteBuffer& buffer, int length);
};

}  // namespace Detail
}  // namespace Veskan

#endif
