// Fuzzes the HTTP/1.1 message reader the way the daemon feeds it: before each receive the unread
// bytes move to the front of the read buffer, a full buffer grows (doubling, up to the header
// limit plus one chunk), one receive takes what fits, then the reader runs; after Violation or
// Stop nothing more is read.
//
// The first byte chooses:
//   bit 0     the client side (replies to four requests in flight) instead of the server side;
//   bit 1     small limits: 256 header bytes, 1024 body bytes, a 64-byte read buffer;
//   bit 2     the peer closes after the last byte;
//   bits 3-4  how the rest arrives: in pieces of one size (bits 5-7: 1, 2, 3, 5, 8, 13, 64 or
//             700 bytes), in pieces of 1 to 32 bytes drawn from a generator seeded by the
//             second byte, byte by byte, or all at once.
// The same bytes are also read all at once, and both reads must tell the same story: the same
// events, messages and outcome. After every read the parse state must be consistent and within
// its limits, and every header field the reader kept must be one that reads back the same: a
// token for a name, no control but HTAB in a value, no blank or control in a request target.
#include "http/FieldSyntax.h"
#include "net/RequestReader.h"

#include <veskan/Body.h>
#include <veskan/Client.h>
#include <veskan/Content.h>
#include <veskan/Header.h>
#include <veskan/Message.h>
#include <veskan/Url.h>

#include "FuzzInput.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

using namespace Veskan;
using Detail::ReaderEvent;
using Detail::ReaderEvents;
using Detail::ReadOutcome;
using States = Client::ParseData::States;

namespace {

constexpr int RequestsInFlight = 4;

struct Options {
  bool serverSide = true;
  bool smallLimits = false;
  bool peerCloses = false;
};

class Feeder {
 public:
  explicit Feeder(const Options& options) : options_(options) {
    if (options.smallLimits) {
      limits_.MaxHeaderBytes = 256;
      limits_.MaxBodySize = 1024;
      parse_.ChunkSize = 64;
      parse_.ReadBuffer.Resize(64);
    }
    largestBuffer_ = std::max(parse_.ReadBuffer.Size(), limits_.MaxHeaderBytes + parse_.ChunkSize);
    if (!options.serverSide) {
      for (int i = 0; i < RequestsInFlight; ++i) {
        std::shared_ptr<Message> request = Message::New();
        request->Open(Methods::GET, u"/r");
        inFlight_.push_back(request);
      }
    }
  }

  void Arrive(const std::uint8_t* bytes, std::size_t size) {
    std::size_t at = 0;
    while (at < size && !Ended()) {
      if (!parse_.MakeRoom(limits_.MaxHeaderBytes)) {
        // Only a chunk-size line, which may run to 1 KiB, can outgrow a small read buffer:
        // everything else is refused at the header limit or moved into the content buffer.
        Fuzzing::Require(parse_.State == States::ReadingChunkSize &&
                         parse_.ReadBuffer.Size() < 1024);
        bufferFull_ = true;
        return;
      }
      const std::size_t count = std::min(
          size - at, static_cast<std::size_t>(parse_.ReadBuffer.Size() - parse_.WritePosition));
      std::memcpy(parse_.ReadBuffer.Data() + parse_.WritePosition, bytes + at, count);
      parse_.WritePosition += static_cast<int>(count);
      at += count;
      arrived_ += static_cast<long long>(count);
      Read(false);
    }
  }

  void PeerCloses() {
    if (!Ended()) Read(true);
  }

  // The events with what their messages and parts hold, then the outcome.
  std::string Story() const {
    std::string story;
    for (const ReaderEvent& event : events_) {
      story += std::to_string(static_cast<int>(event.What)) + " " + std::to_string(event.Value) +
               (event.KeepAlive ? " k\n" : "\n");
      if (event.What == ReaderEvent::Kind::PartComplete) {
        story += Describe(*event.Piece);
      } else if (event.What == ReaderEvent::Kind::MessageComplete) {
        auto lock = event.Subject->Lock();
        story += std::to_string(static_cast<int>(event.Subject->Method)) + " " +
                 event.Subject->Url->Text.ToUTF8() + " " +
                 std::to_string(event.Subject->StatusCode) + "\n";
        const Body& body = *(options_.serverSide ? event.Subject->Request : event.Subject->Reply);
        story += Describe(body);
        for (const auto& cookie : body.Cookies)
          story += cookie.second->Name.ToUTF8() + "=" + cookie.second->Value.ToUTF8() + "\n";
        for (const std::shared_ptr<Part>& part : body.Parts)
          story += Describe(*part);
      }
    }
    return story + (bufferFull_ ? "full" : std::to_string(static_cast<int>(outcome_)));
  }

 private:
  bool Ended() const { return bufferFull_ || outcome_ != ReadOutcome::NeedMore; }

  static std::string Describe(const Part& part) {
    std::string text;
    for (const Header& header : part.Headers)
      text += header.Name.ToUTF8() + ": " + header.Value.ToUTF8() + "\n";
    if (part.Content) {
      text += std::string(*part.Content, static_cast<std::size_t>(part.Content->Size()));
    }
    return text + "\n";
  }

  // The reader stops after each header block and each message and runs again while unread bytes
  // remain. Client side, the request in flight is handed over when the reader has none.
  void Read(bool final) {
    for (;;) {
      if (!options_.serverSide && !current_ && !inFlight_.empty()) current_ = inFlight_.front();
      const std::size_t before = events_.size();
      outcome_ = Detail::RequestReader::Read(parse_, current_, options_.serverSide, final, limits_,
                                             events_);
      bool progressed = Check(before);
      if (!progressed || outcome_ != ReadOutcome::NeedMore ||
          parse_.ReadPosition == parse_.WritePosition) {
        return;
      }
    }
  }

  // Checks the parse state and the new events; true when a header block or a message completed.
  bool Check(std::size_t firstNew) {
    Fuzzing::Require(0 <= parse_.ReadPosition && parse_.ReadPosition <= parse_.WritePosition &&
                     parse_.WritePosition <= parse_.ReadBuffer.Size());
    Fuzzing::Require(parse_.ReadBuffer.Size() <= largestBuffer_);
    Fuzzing::Require(parse_.ContentBuffer.Size() == parse_.ContentReceived);
    Fuzzing::Require(parse_.ContentBuffer.Size() <= limits_.MaxBodySize);
    Fuzzing::Require(parse_.ContentBuffer.Size() <= arrived_);
    if (outcome_ != ReadOutcome::Violation) {
      Fuzzing::Require(parse_.HeaderBytes <= limits_.MaxHeaderBytes);
      if (options_.serverSide) {
        Fuzzing::Require((parse_.State == States::Waiting) == (current_ == nullptr));
      }
    }
    bool progressed = false;
    for (std::size_t i = firstNew; i < events_.size(); ++i) {
      const ReaderEvent& event = events_[i];
      Fuzzing::Require(event.Subject != nullptr);
      switch (event.What) {
        case ReaderEvent::Kind::HeadersComplete:
          Fuzzing::Require(event.Value >= -1 && event.Value <= limits_.MaxBodySize);
          subject_ = event.Subject;
          parts_ = 0;
          progressed = true;
          break;
        case ReaderEvent::Kind::PartComplete:
          Fuzzing::Require(event.Subject == subject_ && event.Value == parts_++ &&
                           event.Piece != nullptr);
          break;
        case ReaderEvent::Kind::ContinueExpected:
          Fuzzing::Require(options_.serverSide && event.Subject == subject_);
          break;
        case ReaderEvent::Kind::UpgradeRequested: {
          Fuzzing::Require(options_.serverSide && event.Subject->Method == Methods::GET);
          auto lock = event.Subject->Lock();
          RequireWritable(*event.Subject, *event.Subject->Request);
          break;
        }
        case ReaderEvent::Kind::MessageComplete: {
          Fuzzing::Require(event.Subject == subject_);
          Fuzzing::Require(event.Value >= 0 && event.Value <= limits_.MaxBodySize);
          auto lock = event.Subject->Lock();
          const std::shared_ptr<Body>& body =
              options_.serverSide ? event.Subject->Request : event.Subject->Reply;
          Fuzzing::Require(body != nullptr && body->Parts.Count() == parts_);
          Fuzzing::Require(event.Value == 0
                               ? body->Content == nullptr
                               : body->Content && body->Content->Size() == event.Value);
          RequireWritable(*event.Subject, *body);
          if (!options_.serverSide) {
            Fuzzing::Require(event.Subject == inFlight_.front());
            inFlight_.pop_front();
          }
          progressed = true;
          subject_.reset();
          break;
        }
      }
    }
    return progressed;
  }

  static void RequireWritable(const Message& message, const Body& body) {
    for (const Header& header : body.Headers)
      Fuzzing::Require(Detail::IsWritableField(header.Name, header.Value));
    const StringBuffer& target = message.Url->Text;
    for (int i = 0; i < target.length(); ++i)
      Fuzzing::Require(target.charAt(i) > 0x20 && target.charAt(i) != 0x7F);
  }

  Options options_;
  Client::ParseData parse_;
  Server::Limits limits_;
  std::shared_ptr<Message> current_;
  ReaderEvents events_;
  ReadOutcome outcome_ = ReadOutcome::NeedMore;
  bool bufferFull_ = false;
  int largestBuffer_ = 0;
  long long arrived_ = 0;
  std::deque<std::shared_ptr<Message>> inFlight_;
  std::shared_ptr<Message> subject_;
  int parts_ = 0;
};

// Reads `size` bytes in pieces that end at `cuts` and at the end.
std::string Read(const Options& options, const std::uint8_t* data, std::size_t size,
                 const std::vector<std::size_t>& cuts) {
  Feeder feeder(options);
  std::size_t start = 0;
  for (std::size_t cut : cuts) {
    feeder.Arrive(data + start, cut - start);
    start = cut;
  }
  feeder.Arrive(data + start, size - start);
  if (options.peerCloses) feeder.PeerCloses();
  return feeder.Story();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::uint8_t selector = data[0];
  std::uint32_t seed = data[1];
  data += 2;
  size -= 2;
  Options options;
  options.serverSide = (selector & 1) == 0;
  options.smallLimits = (selector & 2) != 0;
  options.peerCloses = (selector & 4) != 0;

  std::vector<std::size_t> cuts;
  static constexpr std::size_t PieceSizes[] = {1, 2, 3, 5, 8, 13, 64, 700};
  switch ((selector >> 3) & 3) {
    case 0:
      for (std::size_t cut = PieceSizes[selector >> 5]; cut < size;
           cut += PieceSizes[selector >> 5]) {
        cuts.push_back(cut);
      }
      break;
    case 1:
      for (std::size_t cut = 0;;) {
        seed = seed * 1103515245U + 12345U;
        cut += (seed >> 16) % 32 + 1;
        if (cut >= size) break;
        cuts.push_back(cut);
      }
      break;
    case 2:
      for (std::size_t cut = 1; cut < size; ++cut)
        cuts.push_back(cut);
      break;
    case 3:
      break;
  }
  const std::string pieces = Read(options, data, size, cuts);
  if (!cuts.empty()) Fuzzing::Require(pieces == Read(options, data, size, {}));
  return 0;
}
