// ByteBuffer, the library's one byte container, MemoryMapException, and the functions that move
// bytes between text, files and encodings.
#ifndef VESKAN_BYTEBUFFER_H
#define VESKAN_BYTEBUFFER_H

#include <veskan/Export.h>
#include <veskan/StringBuffer.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <string>

namespace Veskan {

// An operating-system file handle (a POSIX file descriptor).
using FileHandle = int;
constexpr FileHandle InvalidFileHandle = -1;

// Thrown, by value, when mapping a file into a ByteBuffer fails and when a mapped buffer is asked
// to grow.
class VESKAN_API MemoryMapException : public std::exception {
 public:
  // The code of the library's own argument and size checks.
  static constexpr int InvalidArgument = 87;
  // The code for an operation a mapped buffer does not support.
  static constexpr int NotImplemented = static_cast<int>(0x80004001u);

  MemoryMapException(const StringBuffer& location, int code, const StringBuffer& message);

  // Where it happened: the file name, or a function signature.
  const StringBuffer& Location() const { return location_; }
  // The system's error number (errno), InvalidArgument or NotImplemented.
  int Code() const { return code_; }
  const StringBuffer& Message() const { return message_; }
  // The message as UTF-8.
  const char* what() const noexcept override;

 private:
  StringBuffer location_;
  int code_;
  StringBuffer message_;
  std::string what_;
};

namespace Detail {
class ByteBufferAccess;
class MappedFile;
}  // namespace Detail

// Bytes on the heap, or a view of a file mapped into memory; both read the same way.
//
// A heap buffer always keeps a 0 byte after its last used byte, so its data reads as a
// NUL-terminated narrow string; a mapped view is exactly the mapped bytes of the file. Sizes and
// positions are signed 32-bit; a buffer holds less than 2 GiB. Growing a heap buffer zero-fills
// the new bytes. Only the mapping operations (and growing a mapped buffer) throw.
//
// Thread safety: none; guard a shared buffer yourself.
class VESKAN_API ByteBuffer {
 public:
  // Empty: length 0, reads as "".
  ByteBuffer();
  // `size` zero bytes (none for a size below 1).
  explicit ByteBuffer(int size);
  // A copy of `length` bytes of `bytes` from `offset`; null or a bad range gives an empty buffer.
  ByteBuffer(const unsigned char* bytes, int offset, int length);
  // A deep copy of the used bytes; the copy of a mapped buffer is a heap buffer.
  ByteBuffer(const ByteBuffer& other);
  // Takes over the bytes or the mapping of `other`, which is left empty.
  ByteBuffer(ByteBuffer&& other) noexcept;
  virtual ~ByteBuffer();

  ByteBuffer& operator=(const ByteBuffer& other);
  ByteBuffer& operator=(ByteBuffer&& other) noexcept;
  // The narrow text without its terminator (null: empty).
  ByteBuffer& operator=(const char* text);

  // The data: the mapped view when mapped, else the heap block.
  operator const char*() const { return reinterpret_cast<const char*>(Data()); }
  operator char*() { return reinterpret_cast<char*>(Data()); }
  operator const unsigned char*() const { return Data(); }
  operator unsigned char*() { return Data(); }
  const unsigned char* Data() const;
  unsigned char* Data();

  // The number of used bytes.
  int Size() const { return length_; }
  // The bytes that fit without a new block (the mapped length when mapped).
  int Capacity() const { return capacity_; }
  bool IsMapped() const { return mapped_ != nullptr; }

  // True when at least one byte is used. The non-const overload keeps `if (buffer)` from
  // choosing the non-const pointer conversion, which would always be true.
  operator bool() const { return length_ > 0; }
  operator bool() { return length_ > 0; }
  bool operator!() const { return length_ <= 0; }

  // The byte at `index`; the caller keeps `index` within [0, Size()].
  unsigned char operator[](int index) const { return Data()[index]; }
  unsigned char& operator[](int index) { return Data()[index]; }

  // Sets the used length. Below 1 the buffer becomes an empty heap buffer (a mapping is
  // released). A heap buffer grows to exactly `size` (new bytes are 0); a mapped buffer can only
  // shrink and throws MemoryMapException (NotImplemented) when asked to grow.
  void Resize(int size);
  // Makes room for `capacity` bytes without changing the length; no effect on a mapped buffer.
  void Reserve(int capacity);

  // Copies `count` bytes from `position` to `destination + destinationOffset` and returns
  // `count`, or 0 (copying nothing) for a negative position or offset, a null destination, a
  // count below 1 or a range past the end.
  int Read(int position, unsigned char* destination, int destinationOffset, int count) const;
  // Writes `count` bytes of `source` from `sourceOffset` at `position` and returns the number
  // written: 0 for a null source, a negative position or offset or a count below 1. A write past
  // the end grows the buffer when `grow` is set (a gap before `position` is zero-filled) and is
  // cut to what fits otherwise. Nothing is written into a read-only mapping. `source` may point
  // into this buffer.
  int Write(int position, const unsigned char* source, int sourceOffset, int count, bool grow);
  // As above with the bytes of `source` (which may be this buffer); `count` is cut to the bytes
  // that `source` has from `sourceOffset`.
  int Write(int position, const ByteBuffer& source, int sourceOffset, int count, bool grow);
  // Appends `count` bytes; returns the number written.
  int Append(const void* source, int count);

  // Maps `length` bytes of the file `fileName` from `offset` (a length below 1: the rest of the
  // file). Read-only mappings need an existing file that holds the range; a writable mapping
  // creates the file when absent and extends it to offset + length. Any earlier contents or
  // mapping are released first. Throws MemoryMapException, leaving an empty buffer and no open
  // descriptor behind, when it fails.
  void MemoryMap(const char16_t* fileName, bool writable, int offset = 0, int length = 0);
  // As above over files the caller owns: both handles are duplicated first, so the caller may
  // close its own. `mapping` names the object whose pages are mapped; InvalidFileHandle maps
  // `file` itself.
  void MemoryMap(FileHandle file, FileHandle mapping, bool writable, int offset = 0,
                 int length = 0);
  // Releases the view and its descriptors and leaves an empty heap buffer.
  void Unmap();

 private:
  friend class Detail::ByteBufferAccess;

  void ReleaseHeap();
  bool TryGrowHeap(int capacity);
  void GrowHeap(int capacity);
  void MapOpenFile(std::unique_ptr<Detail::MappedFile> file, const StringBuffer& name,
                   bool writable, int offset, int length, const char16_t* emptyFileMessage);

  struct FreeDeleter {
    void operator()(unsigned char* block) const noexcept;
  };
  std::unique_ptr<unsigned char, FreeDeleter> heap_;  // capacity_ + 1 bytes, or null
  unsigned char emptyByte_ = 0;                       // the data of an empty, unallocated buffer
  int capacity_ = 0;
  int length_ = 0;
  std::unique_ptr<Detail::MappedFile> mapped_;  // the view and its descriptors when mapped
};

// The whole file at `path` as a heap buffer; empty when it cannot be read or is 2 GiB or larger.
VESKAN_API ByteBuffer BytesFromFile(const char16_t* path);
// Writes the used bytes of `bytes` to `path`, creating or truncating the file; true on success.
VESKAN_API bool BytesToFile(const ByteBuffer& bytes, const char16_t* path);

// The bytes of a ByteBuffer read as UTF-8; ill-formed UTF-8 gives the empty string.
VESKAN_API StringBuffer UTF8to16(const ByteBuffer& bytes);
// The UTF-8 bytes of `text`, without a terminator or byte-order mark; a null or empty text, or
// one that is not well-formed UTF-16, gives an empty buffer.
VESKAN_API ByteBuffer UTF16to8(const char16_t* text);
VESKAN_API ByteBuffer UTF16to8(const icu::UnicodeString& text);

// Base64 (RFC 4648) of `length` bytes of `bytes` from `offset` (-1: to the end). With a positive
// `lineLength` the text is broken into lines of that many characters, separated by CR LF with none
// after the last. A negative or too large offset gives the empty string; the length is cut to the
// bytes there are.
VESKAN_API StringBuffer Encode64(const ByteBuffer& bytes, int offset = 0, int length = -1,
                                 int lineLength = 0);
// The bytes of a Base64 text; characters outside the Base64 alphabet (white space, line breaks)
// are skipped.
VESKAN_API ByteBuffer Decode64(const char16_t* text);
// The MD5 digest of `length` bytes of `bytes` from `offset` (-1: to the end) as 32 lower-case
// hexadecimal digits; the range is checked as for Encode64.
VESKAN_API StringBuffer MD5(const ByteBuffer& bytes, int offset = 0, int length = -1);

}  // namespace Veskan

#endif
