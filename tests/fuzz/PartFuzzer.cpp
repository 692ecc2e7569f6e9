// Fuzzes the part header-block parser and the multipart payload built from what it parsed. The
// first byte chooses: even, one header block read from the rest at an offset and an end taken
// from the next two bytes; odd, up to four parts (texts split at 0xFF: a header block, then the
// payload) joined into a multipart body whose payload must split back into the same parts.
#include <veskan/Body.h>

#include "http/FieldSyntax.h"

#include "FuzzInput.h"

#include <string>
#include <vector>

using namespace Veskan;

namespace {

ByteBuffer Buffer(const std::uint8_t* data, std::size_t size) {
  return ByteBuffer(data, 0, static_cast<int>(size));
}

void OneBlock(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return;
  const ByteBuffer buffer = Buffer(data + 2, size - 2);
  const int start = data[0] % (buffer.Size() + 1);
  const int end = buffer.Size() - data[1] % (buffer.Size() + 1);
  int position = start;
  const Part part(buffer, position, end);
  Fuzzing::Require(position >= start && (position <= end || position == start));
  int lines = 0;
  for (int i = start + 1; i < end; ++i)
    lines += buffer[i] == 10 && buffer[i - 1] == 13;
  Fuzzing::Require(part.Headers.Count() <= lines);
}

void Multipart(const std::uint8_t* data, std::size_t size) {
  std::vector<std::size_t> cuts{0};
  for (std::size_t i = 0; i < size && cuts.size() < 9; ++i) {
    if (data[i] == 0xFF) cuts.push_back(i + 1);
  }
  cuts.push_back(size + 1);
  Body body;
  for (std::size_t i = 0; i + 2 < cuts.size(); i += 2) {
    const ByteBuffer block = Buffer(data + cuts[i], cuts[i + 1] - 1 - cuts[i]);
    int position = 0;
    auto part = std::make_shared<Part>(block, position, block.Size());
    part->Content = std::make_shared<Content>(data + cuts[i + 1],
                                              static_cast<int>(cuts[i + 2] - 1 - cuts[i + 1]));
    body.Parts.Add(part);
  }
  body.FormatMultipartMessage();
  if (body.Parts.Count() == 0) return;

  const ByteBuffer& payload = *body.Content;
  const std::string bytes(payload, payload.Size());
  const std::string type = body.Headers[Header::ContentType].ToUTF8();
  const std::string prefix = "multipart/mixed; boundary=";
  Fuzzing::Require(type.compare(0, prefix.size(), prefix) == 0);
  const std::string boundary = type.substr(prefix.size());
  Fuzzing::Require(boundary.size() == 25);
  const std::string delimiter = "\r\n--" + boundary;
  std::size_t at = 0;
  for (const std::shared_ptr<Part>& part : body.Parts) {
    Fuzzing::Require(bytes.compare(at, delimiter.size() + 2, delimiter + "\r\n") == 0);
    int position = static_cast<int>(at + delimiter.size() + 2);
    const Part parsed(payload, position, payload.Size());
    // The writer leaves out what could split the block (a name that is no token, a control in a
    // value); every other header comes back as it was, in order.
    std::vector<const Header*> written;
    for (const Header& header : part->Headers) {
      if (Detail::IsWritableField(header.Name, header.Value)) written.push_back(&header);
    }
    Fuzzing::Require(static_cast<std::size_t>(parsed.Headers.Count()) == written.size());
    for (int i = 0; i < parsed.Headers.Count(); ++i) {
      Fuzzing::Require(parsed.Headers(i) == *written[static_cast<std::size_t>(i)]);
    }
    const int length = part->Content->Size();
    Fuzzing::Require(
        bytes.compare(static_cast<std::size_t>(position), static_cast<std::size_t>(length),
                      std::string(*part->Content, static_cast<std::size_t>(length))) == 0);
    at = static_cast<std::size_t>(position + length);
  }
  Fuzzing::Require(bytes.substr(at) == delimiter + "--\r\n");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  if (data[0] % 2 == 0) {
    OneBlock(data + 1, size - 1);
  } else {
    Multipart(data + 1, size - 1);
  }
  return 0;
}
