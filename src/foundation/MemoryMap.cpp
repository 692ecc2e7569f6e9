// Mapping files into ByteBuffers, the mapping failures, and whole-file reads and writes.
#include <veskan/ByteBuffer.h>
#include <veskan/Logger.h>

#include "foundation/ByteBufferAccess.h"
#include "foundation/MappedFile.h"
#include "foundation/Utf.h"
#include "sys/SystemError.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <utility>
#include <vector>

namespace Veskan {

MemoryMapException::MemoryMapException(const StringBuffer& location, int code,
                                       const StringBuffer& message)
    : location_(location), code_(code), message_(message), what_(message.ToUTF8()) {}

const char* MemoryMapException::what() const noexcept {
  return what_.c_str();
}

namespace {

constexpr char16_t HandleFormLocation[] =
    u"void Veskan::ByteBuffer::MemoryMap(HANDLE,HANDLE,boo,int,int)";

StringBuffer Decimal(long long value) {
  return FormatInteger64(value);
}

// Builds the exception for a failure the system reported: {0} the name, {1} the error number,
// {2} its text, then `extra` as {3} and {4}.
MemoryMapException SystemFailure(const StringBuffer& name, int error, const char16_t* pattern,
                                 std::initializer_list<icu::Formattable> extra = {}) {
  std::vector<icu::Formattable> args{icu::Formattable(name), icu::Formattable(Decimal(error)),
                                     icu::Formattable(StringBuffer(Sys::ErrorText(error)))};
  args.insert(args.end(), extra.begin(), extra.end());
  Logger::Line(Logger::Severity::Debug, "Veskan::ByteBuffer::MemoryMap")
      << " file: " << name << " error: " << error;
  return MemoryMapException(name, error,
                            MessageFormat(pattern, args.data(), static_cast<int>(args.size())));
}

// Builds the exception for a failure of the library's own checks.
MemoryMapException CheckFailure(const StringBuffer& name, const char16_t* pattern,
                                std::initializer_list<icu::Formattable> args) {
  Logger::Line(Logger::Severity::Debug, "Veskan::ByteBuffer::MemoryMap") << " file: " << name;
  return MemoryMapException(name, MemoryMapException::InvalidArgument,
                            MessageFormat(pattern, args));
}

// Extends the mapped object to `end` bytes the way the file pointer API does it, so that the file
// position (shared with a caller's duplicated descriptor) ends at 0 again.
void Extend(Sys::File& file, const StringBuffer& name, long long offset, long long length) {
  const long long end = offset + length;
  auto failure = [&](const char16_t* pattern, int error) {
    return MemoryMapException(
        name, error,
        MessageFormat(pattern, {icu::Formattable(name), icu::Formattable(Decimal(offset)),
                                icu::Formattable(Decimal(length)), icu::Formattable(Decimal(error)),
                                icu::Formattable(StringBuffer(Sys::ErrorText(error)))}));
  };
  int error = 0;
  if (!file.SeekTo(end, error)) {
    throw failure(u"{0}: SetFilePointer to {1}+{2} bytes failed: error code {3}: {4}", error);
  }
  if (!file.SetSize(end, error)) {
    throw failure(u"{0}: SetEndofFile at {1}+{2} bytes failed: error code {3}: {4}", error);
  }
  if (!file.SeekTo(0, error)) {
    throw failure(u"{0}: SetFilePointer to beginning of file failed: error code {3}: {4}", error);
  }
}

}  // namespace

void ByteBuffer::MemoryMap(const char16_t* fileName, bool writable, int offset, int length) {
  Resize(0);
  const StringBuffer name(fileName);
  auto mapped = std::make_unique<Detail::MappedFile>();
  int error = 0;
  mapped->file = Sys::File::Open(
      Detail::PathToNative(fileName).c_str(),
      writable ? Sys::File::Mode::ReadWriteAlways : Sys::File::Mode::ReadExisting, error);
  if (!mapped->file) throw SystemFailure(name, error, u"{0}: CreateFile failed: error {1}: {2}");
  MapOpenFile(std::move(mapped), name, writable, offset, length, u"{0}: cannot map a 0 byte file");
}

void ByteBuffer::MemoryMap(FileHandle file, FileHandle mapping, bool writable, int offset,
                           int length) {
  Resize(0);
  const StringBuffer location(HandleFormLocation);
  auto mapped = std::make_unique<Detail::MappedFile>();
  int error = 0;
  mapped->file = Sys::File::Duplicate(file, error);
  if (!mapped->file) {
    throw SystemFailure(location, error, u"{0}: DuplicateHandle(hFile) failed: error {1}: {2}");
  }
  if (mapping != InvalidFileHandle) {
    mapped->mapping = Sys::File::Duplicate(mapping, error);
    if (!mapped->mapping) {
      throw SystemFailure(location, error,
                          u"{0}: DuplicateHandle(hFileMapping) failed: error {1}: {2}");
    }
  }
  std::int64_t size = 0;
  if (mapped->Source().GetSize(size, error) && size == 0) {
    throw CheckFailure(location, u"{0}: canot map file 0 bytes in length",
                       {icu::Formattable(location)});
  }
  MapOpenFile(std::move(mapped), location, writable, offset, length,
              u"{0}: canot map file 0 bytes in length");
}

void ByteBuffer::MapOpenFile(std::unique_ptr<Detail::MappedFile> mapped, const StringBuffer& name,
                             bool writable, int offset, int length,
                             const char16_t* emptyFileMessage) {
  Sys::File& source = mapped->Source();
  int error = 0;
  std::int64_t size = 0;
  if (!source.GetSize(size, error)) {
    throw SystemFailure(name, error, u"{0}: GetFileSize failed: error {1}: {2}");
  }
  const icu::Formattable nameArg(name);
  if (size > INT_MAX) {
    throw CheckFailure(name, u"{0}: canot map file greater than 2 GiB in length", {nameArg});
  }
  if (!writable && size == 0) throw CheckFailure(name, emptyFileMessage, {nameArg});
  if (offset < 0) {
    throw SystemFailure(name, Sys::InvalidArgumentError(),
                        u"{0}: MapViewOfFile {3}+{4} bytes failed: error {1}: {2}",
                        {icu::Formattable(Decimal(offset)), icu::Formattable(Decimal(length))});
  }
  // A length below 1 means the rest of the file from `offset`.
  const long long viewLength = length > 0 ? length : std::max<long long>(size - offset, 0);
  const long long end = offset + viewLength;
  if (end > size) {
    if (!writable) {
      throw CheckFailure(name, u"{0}: map view {1}+{2} bytes is greater than {3} bytes file size",
                         {nameArg, icu::Formattable(Decimal(offset)),
                          icu::Formattable(Decimal(viewLength)), icu::Formattable(Decimal(size))});
    }
    if (end > INT_MAX) {
      throw CheckFailure(name, u"{0}: canot map file greater than 2 GiB in length", {nameArg});
    }
    Extend(source, name, offset, viewLength);
    size = end;
  }
  // Creating the mapping object: the system refuses an empty one, and a writable one over a
  // descriptor opened for reading only.
  int mappingError = 0;
  if (viewLength == 0) {
    mappingError = Sys::InvalidArgumentError();
  } else if (writable && !source.IsWritable(mappingError) && mappingError == 0) {
    mappingError = Sys::AccessDeniedError();
  }
  if (mappingError != 0) {
    throw SystemFailure(name, mappingError,
                        u"{0}: CreateFileMapping {3} bytes failed: error {1}: {2}",
                        {icu::Formattable(Decimal(size))});
  }
  mapped->view =
      Sys::MappedView::Map(source, writable, offset, static_cast<std::size_t>(viewLength), error);
  if (!mapped->view.IsMapped()) {
    throw SystemFailure(name, error, u"{0}: MapViewOfFile {3}+{4} bytes failed: error {1}: {2}",
                        {icu::Formattable(Decimal(offset)), icu::Formattable(Decimal(viewLength))});
  }
  mapped->writable = writable;
  mapped_ = std::move(mapped);
  heap_.reset();
  capacity_ = static_cast<int>(viewLength);
  length_ = capacity_;
}

void ByteBuffer::Unmap() {
  Resize(0);
}

ByteBuffer BytesFromFile(const char16_t* path) {
  ByteBuffer bytes;
  int error = 0;
  Sys::File file =
      Sys::File::Open(Detail::PathToNative(path).c_str(), Sys::File::Mode::ReadExisting, error);
  std::int64_t size = 0;
  if (!file || !file.GetSize(size, error) || size > INT_MAX - 1) return bytes;
  // Read to the end rather than trusting the size: files in /proc report 0.
  int capacity = size > 0 ? static_cast<int>(size) : 4096;
  unsigned char* block = Detail::ByteBufferAccess::PrepareEmpty(bytes, capacity);
  if (!block) return bytes;
  int used = 0;
  for (;;) {
    if (used == capacity) {
      // Full: a one-byte probe tells the end from a file that grew, without doubling the block.
      unsigned char probe = 0;
      const std::int64_t count = file.Read(&probe, 1, error);
      if (count < 0) return ByteBuffer();
      if (count == 0) break;
      if (capacity == INT_MAX - 1) return ByteBuffer();
      capacity = static_cast<int>(std::min<long long>(2LL * capacity, INT_MAX - 1));
      block = Detail::ByteBufferAccess::Grow(bytes, capacity);
      if (!block) return ByteBuffer();
      block[used++] = probe;
      continue;
    }
    const std::int64_t count =
        file.Read(block + used, static_cast<std::size_t>(capacity - used), error);
    if (count < 0) return ByteBuffer();
    if (count == 0) break;
    used += static_cast<int>(count);
  }
  Detail::ByteBufferAccess::Commit(bytes, used);
  return bytes;
}

bool BytesToFile(const ByteBuffer& bytes, const char16_t* path) {
  int error = 0;
  Sys::File file =
      Sys::File::Open(Detail::PathToNative(path).c_str(), Sys::File::Mode::WriteTruncate, error);
  return file && file.WriteAll(bytes.Data(), static_cast<std::size_t>(bytes.Size()), error);
}

}  // namespace Veskan
