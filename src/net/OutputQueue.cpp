// A connection's queue of bytes to send.
#include "net/OutputQueue.h"

#include <algorithm>

namespace Veskan {
namespace Detail {

void OutputQueue::Append(const char* data, std::size_t length) {
  if (length == 0) return;
  if (segments_.size() == first_ || segments_.back().referenced != nullptr ||
      segments_.back().bytes.size() + length >
          std::max(BlockBytes, segments_.back().bytes.size())) {
    segments_.emplace_back();
    segments_.back().bytes.swap(spare_);
  }
  Segment& last = segments_.back();
  last.bytes.insert(last.bytes.end(), data, data + length);
  last.length = last.bytes.size();
  unsent_ += length;
  appended_ += length;
}

void OutputQueue::Append(std::vector<char>&& bytes) {
  if (bytes.empty()) return;
  if (bytes.size() < BlockBytes / 4) {  // small: gathered with its neighbours
    Append(bytes.data(), bytes.size());
    return;
  }
  std::size_t length = bytes.size();
  segments_.emplace_back();
  segments_.back().bytes = std::move(bytes);
  segments_.back().length = length;
  unsent_ += length;
  appended_ += length;
}

void OutputQueue::Append(std::shared_ptr<const void> owner, const char* data, std::size_t length) {
  if (length == 0) return;
  if (length < BlockBytes / 4) {  // cheaper to copy than to send as a segment of its own
    Append(data, length);
    return;
  }
  segments_.emplace_back();
  Segment& segment = segments_.back();
  segment.owner = std::move(owner);
  segment.referenced = data;
  segment.length = length;
  unsent_ += length;
  appended_ += length;
}

std::size_t OutputQueue::Front(Sys::ByteSpan* spans, std::size_t count) const {
  std::size_t filled = 0;
  std::size_t offset = frontOffset_;
  for (auto segment = segments_.begin() + static_cast<std::ptrdiff_t>(first_);
       segment != segments_.end() && filled < count; ++segment) {
    spans[filled].data = segment->Data() + offset;
    spans[filled].length = segment->length - offset;
    ++filled;
    offset = 0;
  }
  return filled;
}

void OutputQueue::Consume(std::size_t count) {
  count = std::min(count, unsent_);
  unsent_ -= count;
  while (count > 0) {
    Segment& front = segments_[first_];
    std::size_t left = front.length - frontOffset_;
    if (count < left) {
      frontOffset_ += count;
      return;
    }
    count -= left;
    KeepSpare(front);
    front = Segment();  // its memory goes now, not when the queue empties
    ++first_;
    frontOffset_ = 0;
  }
  if (unsent_ == 0) {
    segments_.clear();
    first_ = 0;
  } else if (first_ >= 64 && first_ * 2 >= segments_.size()) {
    // A queue that never empties (a busy WebSocket) drops its spent entries now and then.
    segments_.erase(segments_.begin(), segments_.begin() + static_cast<std::ptrdiff_t>(first_));
    first_ = 0;
  }
}

void OutputQueue::KeepSpare(Segment& spent) {
  if (spent.referenced == nullptr && spent.bytes.capacity() <= SpareBytes &&
      spent.bytes.capacity() > spare_.capacity()) {
    spent.bytes.clear();
    spent.bytes.swap(spare_);
  }
}

void OutputQueue::Clear() {
  std::vector<Segment>().swap(segments_);
  std::vector<char>().swap(spare_);
  first_ = 0;
  frontOffset_ = 0;
  unsent_ = 0;
}

}  // namespace Detail
}  // namespace Veskan
