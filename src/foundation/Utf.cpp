// Conversions between UTF-8 and UTF-16, and reading a text file.
#include "foundation/Utf.h"

#include <veskan/ByteBuffer.h>
#include <veskan/StringBuffer.h>

#include "foundation/ByteBufferAccess.h"
#include "sys/File.h"

#include <unicode/ustring.h>

#include <climits>
#include <cstring>
#include <utility>

namespace Veskan {
namespace Detail {

namespace {

// Blocks left more than half empty by a conversion are given back above this many units.
constexpr std::int32_t CompactAbove = 4096;

}  // namespace

bool DecodeUtf8(const char* source, std::int32_t length, icu::UnicodeString& target) {
  target.remove();
  if (!source || length < 1) return length == 0;
  if (length == INT32_MAX) return false;
  // A UTF-8 text never has more UTF-16 units than bytes, so one pass into a block of that size
  // replaces the usual pre-flight pass that would read the input twice.
  char16_t* block = target.getBuffer(length + 1);
  if (!block) return false;
  // Most texts on the wire are ASCII: widened directly, without the converter's set-up.
  std::int32_t ascii = 0;
  while (ascii < length && static_cast<unsigned char>(source[ascii]) < 0x80) {
    block[ascii] = static_cast<char16_t>(source[ascii]);
    ++ascii;
  }
  if (ascii == length) {
    target.releaseBuffer(length);
    return true;
  }
  std::int32_t written = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8(block, length + 1, &written, source, length, &status);
  if (U_FAILURE(status)) {
    target.releaseBuffer(0);
    return false;
  }
  target.releaseBuffer(written);
  if (target.getCapacity() > CompactAbove && written < target.getCapacity() / 2) {
    target = icu::UnicodeString(target.getBuffer(), written);
  }
  return true;
}

std::string EncodeUtf8(const char16_t* source, std::int32_t length) {
  std::string text;
  if (!source || length < 1 || length > INT32_MAX / 3) return text;
  std::int32_t ascii = 0;
  while (ascii < length && source[ascii] < 0x80)
    ++ascii;
  if (ascii == length) {  // narrowed directly, without the converter's set-up
    text.resize(static_cast<std::size_t>(length));
    for (std::int32_t i = 0; i < length; ++i)
      text[static_cast<std::size_t>(i)] = static_cast<char>(source[i]);
    return text;
  }
  text.resize(static_cast<std::size_t>(length) * 3);
  std::int32_t written = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strToUTF8(&text[0], static_cast<std::int32_t>(text.size()), &written, source, length, &status);
  text.resize(U_SUCCESS(status) ? static_cast<std::size_t>(written) : 0);
  return text;
}

std::string EncodeUtf8(const icu::UnicodeString& source) {
  return EncodeUtf8(source.getBuffer(), source.length());
}

std::string PathToNative(const char16_t* path) {
  return path ? EncodeUtf8(path, u_strlen(path)) : std::string();
}

}  // namespace Detail

namespace {

ByteBuffer EncodeUtf8Bytes(const char16_t* source, std::int32_t length) {
  ByteBuffer bytes;
  if (!source || length < 1) return bytes;
  UErrorCode status = U_ZERO_ERROR;
  // At most three bytes per unit (a surrogate pair takes four for two units): one pass into a
  // block of that size, with a pre-flight only where that bound would not fit in 32 bits.
  std::int64_t capacity = static_cast<std::int64_t>(length) * 3;
  if (capacity > INT32_MAX - 1) {
    std::int32_t needed = 0;
    u_strToUTF8(nullptr, 0, &needed, source, length, &status);
    if (status != U_BUFFER_OVERFLOW_ERROR || needed > INT32_MAX - 1) return bytes;
    status = U_ZERO_ERROR;
    capacity = needed;
  }
  unsigned char* block = Detail::ByteBufferAccess::PrepareEmpty(bytes, static_cast<int>(capacity));
  if (!block) return bytes;
  std::int32_t written = 0;
  u_strToUTF8(reinterpret_cast<char*>(block), static_cast<std::int32_t>(capacity), &written, source,
              length, &status);
  Detail::ByteBufferAccess::Commit(bytes, U_SUCCESS(status) ? written : 0);
  return bytes;
}

}  // namespace

StringBuffer UTF8to16(const char* bytes, int offset, int length) {
  StringBuffer text;
  if (!bytes || offset < 0) return text;
  bytes += offset;
  if (length == -1) length = static_cast<int>(std::strlen(bytes));
  Detail::DecodeUtf8(bytes, length, text);
  text.KeepTerminated();
  return text;
}

StringBuffer UTF8to16(const unsigned char* bytes, int offset, int length) {
  return UTF8to16(reinterpret_cast<const char*>(bytes), offset, length);
}

StringBuffer UTF8to16(const ByteBuffer& bytes) {
  return UTF8to16(static_cast<const char*>(bytes), 0, bytes.Size());
}

ByteBuffer UTF16to8(const char16_t* text) {
  return text ? EncodeUtf8Bytes(text, u_strlen(text)) : ByteBuffer();
}

ByteBuffer UTF16to8(const icu::UnicodeString& text) {
  return EncodeUtf8Bytes(text.getBuffer(), text.length());
}

StringBuffer StringFromFile(const char16_t* path) {
  StringBuffer text;
  int error = 0;
  Sys::File file =
      Sys::File::Open(Detail::PathToNative(path).c_str(), Sys::File::Mode::ReadExisting, error);
  std::int64_t size = 0;
  if (!file || !file.GetSize(size, error) || size < 1 || size > INT32_MAX) return text;
  Sys::MappedView view =
      Sys::MappedView::Map(file, false, 0, static_cast<std::size_t>(size), error);
  if (!view.IsMapped()) return text;
  Detail::DecodeUtf8(reinterpret_cast<const char*>(view.Data()), static_cast<std::int32_t>(size),
                     text);
  if (!text.isEmpty() && text[0] == 0xFEFF) text.remove(0, 1);
  text.getTerminatedBuffer();
  return text;
}

}  // namespace Veskan
