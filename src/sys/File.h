// Files and memory-mapped views: the operating system's side of ByteBuffer and the file helpers.
#ifndef VESKAN_SYS_FILE_H
#define VESKAN_SYS_FILE_H

#include <cstddef>
#include <cstdint>

namespace Veskan {
namespace Sys {

// Owns one open file descriptor (or handle). Failing operations return false (or an invalid File)
// and leave the system's error number in `error`.
class File {
 public:
  enum class Mode {
    ReadExisting,     // read-only; the file must exist
    ReadWriteAlways,  // read-write; created when absent
    WriteTruncate,    // write-only; created when absent, emptied when present
  };
  using Native = int;
  static constexpr Native InvalidNative = -1;

  File() = default;
  // Takes ownership of `native`.
  explicit File(Native native) : native_(native) {}
  File(File&& other) noexcept : native_(other.Release()) {}
  File& operator=(File&& other) noexcept;
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() { Close(); }

  // Opens the file at `utf8Path`, close-on-exec.
  static File Open(const char* utf8Path, Mode mode, int& error);
  // A new descriptor for the same open file (sharing its position), close-on-exec.
  static File Duplicate(Native native, int& error);

  bool IsOpen() const { return native_ != InvalidNative; }
  explicit operator bool() const { return IsOpen(); }
  Native Get() const { return native_; }
  Native Release();
  void Close();

  // Whether the descriptor was opened for writing.
  bool IsWritable(int& error) const;
  bool GetSize(std::int64_t& size, int& error) const;
  bool SeekTo(std::int64_t position, int& error);
  bool SetSize(std::int64_t size, int& error);
  // Reads up to `capacity` bytes; returns the number read (0 at the end) or -1.
  std::int64_t Read(void* destination, std::size_t capacity, int& error);
  bool WriteAll(const void* source, std::size_t count, int& error);

 private:
  Native native_ = InvalidNative;
};

// Owns one mapped view of a file. Any byte offset is accepted; the page alignment the system
// needs is handled here.
class MappedView {
 public:
  MappedView() = default;
  MappedView(MappedView&& other) noexcept;
  MappedView& operator=(MappedView&& other) noexcept;
  MappedView(const MappedView&) = delete;
  MappedView& operator=(const MappedView&) = delete;
  ~MappedView() { Reset(); }

  // Maps `length` (at least 1) bytes of `file` from `offset`, shared with the file, read-write
  // when `writable`.
  static MappedView Map(const File& file, bool writable, std::int64_t offset, std::size_t length,
                        int& error);

  unsigned char* Data() const { return data_; }
  std::size_t Length() const { return length_; }
  bool IsMapped() const { return base_ != nullptr; }
  void Reset();

 private:
  void* base_ = nullptr;  // page-aligned start of the mapping
  std::size_t mappedLength_ = 0;
  unsigned char* data_ = nullptr;
  std::size_t length_ = 0;
};

}  // namespace Sys
}  // namespace Veskan

#endif
