// Parts, their header-block parser, part collections and bodies with their multipart payload.
#include <veskan/Body.h>

#include <veskan/Logger.h>
#include <veskan/XmlSchema.h>

#include "http/ObjectPool.h"
#include "http/Pooled.h"

#include <climits>
#include <utility>

namespace Veskan {

namespace {

constexpr unsigned char CR = 13;
constexpr unsigned char LF = 10;

// Appends `count` bytes of `source` at `offset` in `target` and returns the offset behind them.
int Put(ByteBuffer& target, int offset, const void* source, int count) {
  if (count > 0) {
    target.Write(offset, static_cast<const unsigned char*>(source), 0, count, false);
  }
  return offset + count;
}

// Gives the part a content, a "Content-Type" and a sealed payload, and takes its media type.
void Prepare(Part& part) {
  if (!part.Content) part.Content = std::make_shared<Content>();
  if (!part.Headers.Contains(Header::ContentType)) {
    part.Headers[Header::ContentType] = part.Content->GuessType();
  }
  const StringBuffer type =
      static_cast<const Header::Collection&>(part.Headers)[Header::ContentType];
  part.Content->Sealed(type.c_str());
  part.MediaType.SetTo(type.c_str());
}

}  // namespace

// ---- Part -------------------------------------------------------------------------------------

Part::Part() : Content(content_), Headers(headers_), MediaType(mediaType_) {}

Part::Part(const ByteBuffer& buffer, int& position, int end) : Part() {
  if (end > buffer.Size()) end = buffer.Size();
  if (position < 0) return;
  const unsigned char* bytes = buffer.Data();
  int start = position;
  while (start < end) {
    int lineEnd = -1;  // the index of the LF
    for (int i = start + 1; i < end; ++i) {
      if (bytes[i] == LF && bytes[i - 1] == CR) {
        lineEnd = i;
        break;
      }
    }
    if (lineEnd < 0) return;
    const int cr = lineEnd - 1;
    if (cr == start) {
      position = lineEnd + 1;
      return;
    }
    int colon = -1;
    for (int i = start; i < cr; ++i) {
      if (bytes[i] == ':') {
        colon = i;
        break;
      }
    }
    if (colon < 0) return;
    StringBuffer value = UTF8to16(bytes, colon + 1, cr - colon - 1);
    value.trim();
    headers_.AddAnother(Header(UTF8to16(bytes, start, colon - start), std::move(value)));
    start = lineEnd + 1;
    position = start;
  }
}

Part::Part(const Part& other)
    : Content(content_),
      Headers(headers_),
      MediaType(mediaType_),
      content_(other.content_),
      headers_(other.headers_),
      mediaType_(other.mediaType_) {}

Part& Part::operator=(const Part& other) {
  content_ = other.content_;
  headers_ = other.headers_;
  mediaType_ = other.mediaType_;
  return *this;
}

Part::~Part() = default;

bool Part::IsXml() const {
  return content_ && content_->Document && XmlSchema::DocumentElement(content_->Document);
}

// ---- Part::Collection -------------------------------------------------------------------------

Part::Collection::~Collection() = default;

int Part::Collection::Add(const std::shared_ptr<Part>& part) {
  parts_.push_back(part);
  Recount();
  return count_ - 1;
}

std::shared_ptr<Part> Part::Collection::operator[](int index) const {
  if (index < 0 || index >= count_) return nullptr;
  return parts_[static_cast<std::size_t>(index)];
}

void Part::Collection::RemoveAt(int index) {
  parts_.erase(parts_.begin() + index);
  Recount();
}

void Part::Collection::Clear() {
  parts_.clear();
  Recount();
}

// ---- Body -------------------------------------------------------------------------------------

Body::Body() : Parts(parts_), Cookies(cookies_) {}

Body::Body(const Body& other)
    : Part(other),
      Parts(parts_),
      Cookies(cookies_),
      parts_(other.parts_),
      cookies_(other.cookies_) {}

Body& Body::operator=(const Body& other) {
  Part::operator=(other);
  parts_ = other.parts_;
  cookies_ = other.cookies_;
  return *this;
}

Body::~Body() = default;

namespace {

void RecycleBody(Body* body) {
  body->Content.reset();
  body->Headers.Clear();
  Detail::RenewMediaType(body->MediaType);
  body->Parts.Clear();
  body->Cookies.Clear();
  Detail::ObjectPool<Body>::Give(body);
}

}  // namespace

std::shared_ptr<Body> Detail::NewBody() {
  return ObjectPool<Body>::TakeShared([] { return new Body(); }, &RecycleBody);
}

void Body::FormatMultipartMessage() {
  if (parts_.Count() == 0) {
    if (Content) Prepare(*this);
    return;
  }

  const StringBuffer boundaryText = NewId();
  const ByteBuffer boundary = UTF16to8(boundaryText);
  const int boundaryLength = boundary.Size();

  // Each part with its printed header block; null entries are left out.
  std::vector<std::pair<std::shared_ptr<Part>, ByteBuffer>> blocks;
  blocks.reserve(static_cast<std::size_t>(parts_.Count()));
  long long total = boundaryLength + 8;
  for (const std::shared_ptr<Part>& part : parts_) {
    if (!part) continue;
    Prepare(*part);
    ByteBuffer block;
    part->Headers.Write(block, 0, true);
    total += static_cast<long long>(block.Size()) + part->Content->Size() + boundaryLength + 6;
    blocks.emplace_back(part, std::move(block));
  }
  if (total >= INT_MAX) {
    Logger::Line(Logger::Severity::Error, "Veskan::Body::FormatMultipartMessage")
        << " bytes:" << total;
    return;
  }

  ByteBuffer payload(static_cast<int>(total));
  int offset = 0;
  for (const auto& entry : blocks) {
    const Veskan::Content& content = *entry.first->Content;
    offset = Put(payload, offset, "\r\n--", 4);
    offset = Put(payload, offset, boundary.Data(), boundaryLength);
    offset = Put(payload, offset, "\r\n", 2);
    offset = Put(payload, offset, entry.second.Data(), entry.second.Size());
    offset = Put(payload, offset, content.Data(), content.Size());
  }
  offset = Put(payload, offset, "\r\n--", 4);
  offset = Put(payload, offset, boundary.Data(), boundaryLength);
  Put(payload, offset, "--\r\n", 4);

  StringBuffer type(u"multipart/mixed; boundary=");
  type += boundaryText;
  Headers[Header::ContentType] = type;
  Content = std::make_shared<Veskan::Content>(payload.Data(), payload.Size());
  Content->Sealed(Veskan::Content::Types::ApplicationOctetStream);
  MediaType.SetTo(type.c_str());
}

}  // namespace Veskan
