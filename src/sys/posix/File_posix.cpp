// Files and mapped views on POSIX: open, fstat, ftruncate, mmap.
#include "sys/File.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

#include <utility>

namespace Veskan {
namespace Sys {

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    Close();
    native_ = other.Release();
  }
  return *this;
}

File File::Open(const char* utf8Path, Mode mode, int& error) {
  int flags = O_CLOEXEC;
  switch (mode) {
    case Mode::ReadExisting:
      flags |= O_RDONLY;
      break;
    case Mode::ReadWriteAlways:
      flags |= O_RDWR | O_CREAT;
      break;
    case Mode::WriteTruncate:
      flags |= O_WRONLY | O_CREAT | O_TRUNC;
      break;
  }
  int fd;
  do {
    fd = ::open(utf8Path, flags, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) error = errno;
  return File(fd);
}

File File::Duplicate(Native native, int& error) {
  int fd = ::fcntl(native, F_DUPFD_CLOEXEC, 0);
  if (fd < 0) error = errno;
  return File(fd);
}

File::Native File::Release() {
  return std::exchange(native_, InvalidNative);
}

void File::Close() {
  if (IsOpen()) ::close(Release());  // close is not retried on EINTR: the descriptor is gone
}

bool File::IsWritable(int& error) const {
  int flags = ::fcntl(native_, F_GETFL);
  if (flags < 0) {
    error = errno;
    return false;
  }
  return (flags & O_ACCMODE) == O_RDWR || (flags & O_ACCMODE) == O_WRONLY;
}

bool File::GetSize(std::int64_t& size, int& error) const {
  struct stat status;
  if (::fstat(native_, &status) != 0) {
    error = errno;
    return false;
  }
  size = status.st_size;
  return true;
}

bool File::SeekTo(std::int64_t position, int& error) {
  if (::lseek(native_, static_cast<off_t>(position), SEEK_SET) < 0) {
    error = errno;
    return false;
  }
  return true;
}

bool File::SetSize(std::int64_t size, int& error) {
  int result;
  do {
    result = ::ftruncate(native_, static_cast<off_t>(size));
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    error = errno;
    return false;
  }
  return true;
}

std::int64_t File::Read(void* destination, std::size_t capacity, int& error) {
  ssize_t count;
  do {
    count = ::read(native_, destination, capacity);
  } while (count < 0 && errno == EINTR);
  if (count < 0) error = errno;
  return count;
}

bool File::WriteAll(const void* source, std::size_t count, int& error) {
  const char* next = static_cast<const char*>(source);
  while (count > 0) {
    ssize_t written = ::write(native_, next, count);
    if (written < 0) {
      if (errno == EINTR) continue;
      error = errno;
      return false;
    }
    next += written;
    count -= static_cast<std::size_t>(written);
  }
  return true;
}

MappedView::MappedView(MappedView&& other) noexcept
    : base_(std::exchange(other.base_, nullptr)),
      mappedLength_(std::exchange(other.mappedLength_, 0)),
      data_(std::exchange(other.data_, nullptr)),
      length_(std::exchange(other.length_, 0)) {}

MappedView& MappedView::operator=(MappedView&& other) noexcept {
  if (this != &other) {
    Reset();
    base_ = std::exchange(other.base_, nullptr);
    mappedLength_ = std::exchange(other.mappedLength_, 0);
    data_ = std::exchange(other.data_, nullptr);
    length_ = std::exchange(other.length_, 0);
  }
  return *this;
}

MappedView MappedView::Map(const File& file, bool writable, std::int64_t offset, std::size_t length,
                           int& error) {
  MappedView view;
  if (offset < 0 || length == 0) {
    error = EINVAL;
    return view;
  }
  // mmap wants a page-aligned offset: map from the page start and skip the difference.
  const std::int64_t pageSize = ::sysconf(_SC_PAGESIZE);
  const std::int64_t alignedOffset = offset - offset % pageSize;
  const std::size_t skip = static_cast<std::size_t>(offset - alignedOffset);
  const int protection = writable ? PROT_READ | PROT_WRITE : PROT_READ;
  void* base = ::mmap(nullptr, length + skip, protection, MAP_SHARED, file.Get(),
                      static_cast<off_t>(alignedOffset));
  if (base == MAP_FAILED) {
    error = errno;
    return view;
  }
  view.base_ = base;
  view.mappedLength_ = length + skip;
  view.data_ = static_cast<unsigned char*>(base) + skip;
  view.length_ = length;
  return view;
}

void MappedView::Reset() {
  if (base_) ::munmap(base_, mappedLength_);
  base_ = nullptr;
  mappedLength_ = 0;
  data_ = nullptr;
  length_ = 0;
}

}  // namespace Sys
}  // namespace Veskan
