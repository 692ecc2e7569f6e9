// Part, one entity with headers, media type and payload; Part::Collection; and Body, the entity of
// a whole request or reply, which joins its sub-parts into one "multipart/mixed" payload.
#ifndef VESKAN_BODY_H
#define VESKAN_BODY_H

#include <veskan/ByteBuffer.h>
#include <veskan/Content.h>
#include <veskan/Cookie.h>
#include <veskan/Export.h>
#include <veskan/Header.h>

#include <memory>
#include <vector>

namespace Veskan {

// One entity: a header block, the media type taken from it and a payload.
//
// Thread safety: none; a part belongs to one message, which guards it.
class VESKAN_API Part {
 public:
  class Collection;

  // No content, no headers, "application/octet-stream".
  Part();
  // Parses the header block that starts at `position` in `buffer` without reading at or beyond
  // `end` (cut to the buffer's size), advancing `position` behind each complete line (RFC 2046
  // section 5.1.1: CR LF ends every line, an empty line ends the block). A name runs up to the
  // first ":" and is kept as it is; the value is trimmed; an exact duplicate line is kept once.
  // The block is complete when `position` has moved past an empty line. A line without ":", a
  // line without CR LF before `end`, or a header line whose CR LF reaches `end` stops the parse:
  // `position` stays behind the last complete line and the headers read so far are kept. A
  // negative `position` reads nothing. The payload is not read: assign Content afterwards.
  Part(const ByteBuffer& buffer, int& position, int end);
  // Shares the other part's content object; copies headers and media type.
  Part(const Part& other);
  Part& operator=(const Part& other);
  virtual ~Part();

  // True when the content holds a parsed XML document that has a document element.
  bool IsXml() const;

  // The payload; may be null. Bound to this object's own members.
  std::shared_ptr<Veskan::Content>& Content;
  Header::Collection& Headers;
  Veskan::MediaType& MediaType;

 private:
  std::shared_ptr<Veskan::Content> content_;
  Header::Collection headers_;
  Veskan::MediaType mediaType_;
};

// Parts in order. Indexing out of range gives a null pointer. A copy shares the parts.
//
// Thread safety: none; a collection belongs to one body.
class VESKAN_API Part::Collection {
 public:
  Collection() = default;
  Collection(const Collection& other) = default;
  Collection& operator=(const Collection& other) = default;
  virtual ~Collection();

  int Count() const { return count_; }

  // Appends `part` and returns its index.
  int Add(const std::shared_ptr<Part>& part);
  // The part at `index`, or null when `index` is negative or not below Count().
  std::shared_ptr<Part> operator[](int index) const;
  // Removes the part at `index`; the caller passes an index below Count().
  void RemoveAt(int index);
  void Clear();

  std::vector<std::shared_ptr<Part>>::const_iterator begin() const { return parts_.begin(); }
  std::vector<std::shared_ptr<Part>>::const_iterator end() const { return parts_.end(); }

 private:
  void Recount() { count_ = static_cast<int>(parts_.size()); }

  std::vector<std::shared_ptr<Part>> parts_;
  int count_ = 0;
};

// The entity of a request or reply: a part that may hold sub-parts, and its cookies.
//
// Thread safety: none; a body belongs to one message, which guards it.
class VESKAN_API Body : public Part {
 public:
  Body();
  // Copies the part, shares the sub-parts, copies the cookies.
  Body(const Body& other);
  Body& operator=(const Body& other);
  ~Body() override;

  // Prepares the body for sending. With sub-parts: a fresh boundary (NewId without prefix) in
  // "Content-Type: multipart/mixed; boundary=...", every sub-part given a content and a
  // "Content-Type" (guessed when missing) and sealed with it, and the body's content replaced by
  // "\r\n--B\r\n" + headers + bytes for each part and "\r\n--B--\r\n" after the last one (RFC 2046
  // section 5.1.1). Without sub-parts: the content, if any, gets a guessed "Content-Type" when it
  // has none and is sealed with it. A content is sealed once, so one changed after an earlier
  // call is sent as first sealed. Null entries of Parts are left out. A payload that would reach
  // 2 GiB leaves the body unchanged and writes an Error line.
  void FormatMultipartMessage();

  Part::Collection& Parts;
  Cookie::Collection& Cookies;

 private:
  Part::Collection parts_;
  Cookie::Collection cookies_;
};

}  // namespace Veskan

#endif
