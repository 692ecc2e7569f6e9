// Base64 and MD5 of byte buffers, on Crypto++.
#include <veskan/ByteBuffer.h>

#include "foundation/ByteBufferAccess.h"

#define CRYPTOPP_ENABLE_NAMESPACE_WEAK 1
#include <crypto++/base64.h>
#include <crypto++/filters.h>
#include <crypto++/md5.h>

#include <string>

namespace Veskan {

namespace {

// Resolves `offset` and `length` (-1: to the end) against `bytes`; false for a bad offset.
bool ResolveRange(const ByteBuffer& bytes, int offset, int& length) {
  if (offset < 0 || offset > bytes.Size()) return false;
  const int available = bytes.Size() - offset;
  if (length < 0 || length > available) length = available;
  return true;
}

// Receives the encoder's ASCII output and writes it straight into a UTF-16 block, breaking lines
// on the way, so the text is produced in one pass without an intermediate narrow copy.
class Utf16LineSink : public CryptoPP::Bufferless<CryptoPP::Sink> {
 public:
  Utf16LineSink(char16_t* out, int lineLength) : next_(out), lineLength_(lineLength) {}

  size_t Put2(const CryptoPP::byte* in, size_t length, int, bool) override {
    if (lineLength_ <= 0) {
      for (size_t i = 0; i < length; ++i)
        *next_++ = in[i];
      return 0;
    }
    for (size_t i = 0; i < length; ++i) {
      if (column_ == lineLength_) {
        *next_++ = u'\r';
        *next_++ = u'\n';
        column_ = 0;
      }
      *next_++ = in[i];
      ++column_;
    }
    return 0;
  }

  char16_t* Next() const { return next_; }

 private:
  char16_t* next_;
  int lineLength_;
  int column_ = 0;
};

}  // namespace

StringBuffer Encode64(const ByteBuffer& bytes, int offset, int length, int lineLength) {
  StringBuffer text;
  if (!ResolveRange(bytes, offset, length) || length == 0) return text;
  const long long characters = (static_cast<long long>(length) + 2) / 3 * 4;
  const long long breaks = lineLength > 0 ? (characters - 1) / lineLength : 0;
  const long long total = characters + 2 * breaks;
  if (total >= INT32_MAX) return text;
  char16_t* block = text.getBuffer(static_cast<std::int32_t>(total) + 1);
  if (!block) return text;
  // Crypto++ filters take ownership of their attachment.
  auto* sink = new Utf16LineSink(block, lineLength);
  CryptoPP::Base64Encoder encoder(sink, false);
  encoder.Put(bytes.Data() + offset, static_cast<size_t>(length));
  encoder.MessageEnd();
  const std::int32_t written = static_cast<std::int32_t>(sink->Next() - block);
  block[written] = 0;
  text.releaseBuffer(written);
  return text;
}

ByteBuffer Decode64(const char16_t* text) {
  ByteBuffer bytes;
  const int length = StringLength(text);
  if (length == 0) return bytes;
  // The alphabet is ASCII: anything wider is skipped like any other non-alphabet character.
  std::string narrow;
  narrow.reserve(static_cast<std::size_t>(length));
  for (int i = 0; i < length; ++i) {
    if (text[i] < 0x80) narrow += static_cast<char>(text[i]);
  }
  const int capacity = static_cast<int>(narrow.size() / 4 * 3 + 3);
  unsigned char* block = Detail::ByteBufferAccess::PrepareEmpty(bytes, capacity);
  if (!block) return bytes;
  auto* sink = new CryptoPP::ArraySink(block, static_cast<size_t>(capacity));
  CryptoPP::Base64Decoder decoder(sink);
  decoder.Put(reinterpret_cast<const CryptoPP::byte*>(narrow.data()), narrow.size());
  decoder.MessageEnd();
  Detail::ByteBufferAccess::Commit(bytes, static_cast<int>(sink->TotalPutLength()));
  return bytes;
}

StringBuffer MD5(const ByteBuffer& bytes, int offset, int length) {
  if (!ResolveRange(bytes, offset, length)) return StringBuffer();
  CryptoPP::byte digest[CryptoPP::Weak::MD5::DIGESTSIZE];
  CryptoPP::Weak::MD5().CalculateDigest(digest, bytes.Data() + offset, static_cast<size_t>(length));
  static const char16_t Hex[] = u"0123456789abcdef";
  char16_t text[2 * sizeof digest];
  for (size_t i = 0; i < sizeof digest; ++i) {
    text[2 * i] = Hex[digest[i] >> 4];
    text[2 * i + 1] = Hex[digest[i] & 0xF];
  }
  return StringBuffer(text, static_cast<int>(2 * sizeof digest));
}

}  // namespace Veskan
