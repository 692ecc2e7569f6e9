// ByteBuffer's heap storage, copying, reading and writing.
#include <veskan/ByteBuffer.h>

#include "foundation/ByteBufferAccess.h"
#include "foundation/MappedFile.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace Veskan {

namespace {

// The largest byte count a buffer holds: its terminator must still fit in a signed 32-bit size.
constexpr int MaxSize = INT_MAX - 1;

bool InBlock(const unsigned char* pointer, const unsigned char* block, int capacity) {
  return block && pointer >= block && pointer <= block + capacity;
}

}  // namespace

void ByteBuffer::FreeDeleter::operator()(unsigned char* block) const noexcept {
  std::free(block);
}

ByteBuffer::ByteBuffer() = default;

ByteBuffer::ByteBuffer(int size) {
  Resize(size);
}

ByteBuffer::ByteBuffer(const unsigned char* bytes, int offset, int length) {
  if (bytes && offset >= 0 && length > 0) Write(0, bytes + offset, 0, length, true);
}

ByteBuffer::ByteBuffer(const ByteBuffer& other) {
  Write(0, other.Data(), 0, other.length_, true);
}

ByteBuffer::ByteBuffer(ByteBuffer&& other) noexcept
    : heap_(std::move(other.heap_)),
      capacity_(std::exchange(other.capacity_, 0)),
      length_(std::exchange(other.length_, 0)),
      mapped_(std::move(other.mapped_)) {}

ByteBuffer::~ByteBuffer() = default;

ByteBuffer& ByteBuffer::operator=(const ByteBuffer& other) {
  if (this != &other) {
    ByteBuffer copy(other);
    *this = std::move(copy);
  }
  return *this;
}

ByteBuffer& ByteBuffer::operator=(ByteBuffer&& other) noexcept {
  if (this != &other) {
    heap_ = std::move(other.heap_);
    capacity_ = std::exchange(other.capacity_, 0);
    length_ = std::exchange(other.length_, 0);
    mapped_ = std::move(other.mapped_);
    emptyByte_ = 0;
  }
  return *this;
}

ByteBuffer& ByteBuffer::operator=(const char* text) {
  Resize(0);
  if (text) {
    const std::size_t length = std::strlen(text);
    if (length <= static_cast<std::size_t>(MaxSize)) {
      Write(0, reinterpret_cast<const unsigned char*>(text), 0, static_cast<int>(length), true);
    }
  }
  return *this;
}

const unsigned char* ByteBuffer::Data() const {
  if (mapped_) return mapped_->view.Data();
  return heap_ ? heap_.get() : &emptyByte_;
}

unsigned char* ByteBuffer::Data() {
  if (mapped_) return mapped_->view.Data();
  return heap_ ? heap_.get() : &emptyByte_;
}

void ByteBuffer::ReleaseHeap() {
  heap_.reset();
  capacity_ = 0;
  length_ = 0;
  emptyByte_ = 0;
}

bool ByteBuffer::TryGrowHeap(int capacity) {
  if (capacity <= capacity_) return true;
  // realloc keeps the bytes and often extends the block in place.
  void* block = std::realloc(heap_.get(), static_cast<std::size_t>(capacity) + 1);
  if (!block) return false;
  (void)heap_.release();
  heap_.reset(static_cast<unsigned char*>(block));
  if (capacity_ == 0) heap_.get()[0] = 0;
  capacity_ = capacity;
  return true;
}

void ByteBuffer::GrowHeap(int capacity) {
  if (!TryGrowHeap(capacity)) throw std::bad_alloc();
}

void ByteBuffer::Resize(int size) {
  if (size < 1) {
    mapped_.reset();
    ReleaseHeap();
    return;
  }
  if (mapped_) {
    if (size > capacity_) {
      static const char16_t Location[] = u"public void Veskan::ByteBuffer::Resize(int)";
      throw MemoryMapException(
          Location, MemoryMapException::NotImplemented,
          StringBuffer(Location) + u": not implemented: resizing a memory mapped buffer");
    }
    length_ = size;  // a view has no terminator of its own to move
    return;
  }
  if (size > MaxSize) throw std::bad_alloc();
  if (size > capacity_) GrowHeap(size);
  if (size > length_)
    std::memset(heap_.get() + length_, 0, static_cast<std::size_t>(size - length_));
  length_ = size;
  heap_.get()[length_] = 0;
}

void ByteBuffer::Reserve(int capacity) {
  if (!mapped_ && capacity > capacity_ && capacity <= MaxSize) GrowHeap(capacity);
}

int ByteBuffer::Read(int position, unsigned char* destination, int destinationOffset,
                     int count) const {
  if (position < 0 || !destination || count < 1 || destinationOffset < 0) return 0;
  if (static_cast<long long>(position) + count > length_) return 0;
  std::memmove(destination + destinationOffset, Data() + position, static_cast<std::size_t>(count));
  return count;
}

int ByteBuffer::Write(int position, const unsigned char* source, int sourceOffset, int count,
                      bool grow) {
  if (!source || position < 0 || sourceOffset < 0 || count < 1) return 0;
  if (mapped_ && !mapped_->writable) return 0;
  source += sourceOffset;
  const long long end = static_cast<long long>(position) + count;
  if (end > length_) {
    if (!grow) {
      count = std::max(0, length_ - position);
      if (count == 0) return 0;
    } else {
      if (end > MaxSize) return 0;
      if (mapped_) {
        Resize(static_cast<int>(end));  // within the view, or throws: a view cannot grow
      } else {
        if (end > capacity_) {
          // Geometric growth keeps a run of appends linear; the source may live in this block.
          const bool fromSelf = InBlock(source, heap_.get(), capacity_);
          const std::ptrdiff_t sourceAt = fromSelf ? source - heap_.get() : 0;
          const long long wanted = std::max<long long>(end, capacity_ + capacity_ / 2);
          GrowHeap(static_cast<int>(std::min<long long>(wanted, MaxSize)));
          if (fromSelf) source = heap_.get() + sourceAt;
        }
        if (position > length_) {
          std::memset(heap_.get() + length_, 0, static_cast<std::size_t>(position - length_));
        }
        length_ = static_cast<int>(end);
        heap_.get()[length_] = 0;
      }
    }
  }
  std::memmove(Data() + position, source, static_cast<std::size_t>(count));
  return count;
}

int ByteBuffer::Write(int position, const ByteBuffer& source, int sourceOffset, int count,
                      bool grow) {
  if (sourceOffset < 0 || sourceOffset >= source.length_) return 0;
  count = std::min(count, source.length_ - sourceOffset);
  return Write(position, source.Data(), sourceOffset, count, grow);
}

int ByteBuffer::Append(const void* source, int count) {
  return Write(length_, static_cast<const unsigned char*>(source), 0, count, true);
}

namespace Detail {

unsigned char* ByteBufferAccess::PrepareEmpty(ByteBuffer& buffer, int capacity) {
  buffer.Resize(0);
  if (capacity < 1 || capacity > MaxSize) return nullptr;
  void* block = std::malloc(static_cast<std::size_t>(capacity) + 1);
  if (!block) return nullptr;
  buffer.heap_.reset(static_cast<unsigned char*>(block));
  buffer.capacity_ = capacity;
  buffer.heap_.get()[0] = 0;
  return buffer.heap_.get();
}

unsigned char* ByteBufferAccess::Grow(ByteBuffer& buffer, int capacity) {
  if (buffer.mapped_ || capacity > MaxSize || !buffer.TryGrowHeap(capacity)) return nullptr;
  return buffer.heap_.get();
}

void ByteBufferAccess::Commit(ByteBuffer& buffer, int length) {
  if (length < 1) {
    buffer.Resize(0);
    return;
  }
  buffer.length_ = length;
  buffer.heap_.get()[length] = 0;
  // Converters reserve for the worst case; give back a tail larger than what is used.
  if (buffer.capacity_ > 4096 && length < buffer.capacity_ / 2) {
    void* block = std::realloc(buffer.heap_.get(), static_cast<std::size_t>(length) + 1);
    if (block) {
      (void)buffer.heap_.release();
      buffer.heap_.reset(static_cast<unsigned char*>(block));
      buffer.capacity_ = length;
    }
  }
}

}  // namespace Detail

}  // namespace Veskan
