// The bytes a connection has to send, in order.
#ifndef VESKAN_NET_OUTPUTQUEUE_H
#define VESKAN_NET_OUTPUTQUEUE_H

#include "sys/Socket.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace Veskan {
namespace Detail {

// A queue of byte segments. Small pieces (reply heads, short bodies, frames) are copied into
// shared blocks; a large body is referenced rather than copied, kept alive by its owner, so that
// a reply holding a large file costs its head however often it is queued. Memory is given back
// as the bytes leave, but for one small block kept for the next reply.
//
// Positions count every byte ever appended, so that a writer can tell when the bytes up to a
// given position have left.
//
// Thread safety: none; the connection's lock guards it.
class OutputQueue {
 public:
  // Copies `length` bytes.
  void Append(const char* data, std::size_t length);
  // Takes over `bytes`.
  void Append(std::vector<char>&& bytes);
  // Refers to `length` bytes at `data`, which `owner` keeps alive and unchanged until they have
  // left.
  void Append(std::shared_ptr<const void> owner, const char* data, std::size_t length);

  bool Empty() const { return unsent_ == 0; }
  std::size_t Unsent() const { return unsent_; }
  // The position behind the last byte appended, and behind the last byte consumed.
  std::uint64_t End() const { return appended_; }
  std::uint64_t Consumed() const { return appended_ - unsent_; }

  // Describes up to `count` spans from the front; returns how many.
  std::size_t Front(Sys::ByteSpan* spans, std::size_t count) const;
  // Removes `count` bytes from the front (at most Unsent()).
  void Consume(std::size_t count);
  // Drops everything and gives all memory back; positions stay.
  void Clear();

 private:
  // Copied pieces are gathered into blocks of this size, so that pipelined small replies leave
  // in one send.
  static constexpr std::size_t BlockBytes = 16 * 1024;

  struct Segment {
    std::vector<char> bytes;            // copied or taken over
    std::shared_ptr<const void> owner;  // keeps referenced bytes alive
    const char* referenced = nullptr;   // referenced bytes, when not copied
    std::size_t length = 0;
    const char* Data() const { return referenced != nullptr ? referenced : bytes.data(); }
  };

  // A spent block of copied bytes is kept for the next reply when its room is at most this: a
  // keep-alive connection then queues reply after reply without allocating, and an idle one
  // holds no more than this.
  static constexpr std::size_t SpareBytes = 2 * 1024;

  // Takes the room of a spent segment's copied bytes as the spare when it is small.
  void KeepSpare(Segment& spent);

  // Segments from first_ on are unsent.
  std::vector<Segment> segments_;
  std::vector<char> spare_;  // empty, with room or without
  std::size_t first_ = 0;
  std::size_t frontOffset_ = 0;  // bytes of the first unsent segment already consumed
  std::size_t unsent_ = 0;
  std::uint64_t appended_ = 0;
};

}  // namespace Detail
}  // namespace Veskan

#endif
