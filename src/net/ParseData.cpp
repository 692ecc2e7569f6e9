// Client::ParseData, the per-connection parse state, and Client::Collection.
#include <veskan/Client.h>
#include <veskan/Logger.h>

#include "foundation/ByteBufferAccess.h"

#include <algorithm>
#include <cstring>

namespace Veskan {

const char16_t* Client::ParseData::States::ToString(Enumeration value) {
  switch (value) {
    case Waiting:
      return u"Waiting";
    case ReadingHeaders:
      return u"ReadingHeaders";
    case ReadingContent:
      return u"ReadingContent";
    case SendingContent:
      return u"SendingContent";
    case ReadingChunkSize:
    case ReadingChunkData:
      break;
  }
  return u"##invalid value##";
}

Client::ParseData::ParseData() {
  EnsureReadBuffer();
}

void Client::ParseData::EnsureReadBuffer() {
  if (ReadBuffer.Size() > 0) return;
  if (Detail::ByteBufferAccess::PrepareEmpty(ReadBuffer, ChunkSize) != nullptr) {
    Detail::ByteBufferAccess::Commit(ReadBuffer, ChunkSize);
  }
}

bool Client::ParseData::MakeRoom(int maxHeaderBytes) {
  EnsureReadBuffer();
  if (ReadPosition == WritePosition) {
    ReadPosition = WritePosition = 0;
  } else if (ReadPosition > 0) {
    std::memmove(ReadBuffer.Data(), ReadBuffer.Data() + ReadPosition,
                 static_cast<std::size_t>(WritePosition - ReadPosition));
    WritePosition -= ReadPosition;
    ReadPosition = 0;
  }
  if (WritePosition == ReadBuffer.Size()) {
    ReadBuffer.Resize(std::min(ReadBuffer.Size() * 2, maxHeaderBytes + ChunkSize));
  }
  return WritePosition < ReadBuffer.Size();
}

Client::ParseData::ParseData(const ParseData& other) = default;
Client::ParseData& Client::ParseData::operator=(const ParseData& other) = default;
Client::ParseData::~ParseData() = default;

void Client::ParseData::ResetAll() {
  Parts.clear();
  PartOffsets.clear();
  ReadPosition = 0;
  WritePosition = 0;
  ContentLength = 0;
  ContentReceived = 0;
  HeaderBytes = 0;
  Chunked = false;
  ChunkRemaining = 0;
  Delimiter.clear();
  MultipartScan = 0;
  MultipartSearched = 0;
  KeepAlive = false;
  ContentBuffer.Resize(0);
  State = States::Waiting;
}

Client::Collection::Collection() {
  Logger::Line(Logger::Severity::Trace, "Veskan::Client::Collection::Collection");
}

Client::Collection::~Collection() = default;

std::shared_ptr<Client> Client::Collection::operator[](int index) const {
  if (index < 0 || index >= Count()) return nullptr;
  return clients_[static_cast<std::size_t>(index)];
}

void Client::Collection::Add(const std::shared_ptr<Client>& client) {
  clients_.push_back(client);
}

void Client::Collection::RemoveAt(int index) {
  Logger::Line(Logger::Severity::Trace, "Veskan::Client::Collection::RemoveAt")
      << " index: " << index;
  if (index < 0 || index >= Count()) return;
  clients_.erase(clients_.begin() + index);
}

bool Client::Collection::Remove(const Client* client) {
  for (std::size_t i = 0; i < clients_.size(); ++i) {
    if (clients_[i].get() == client) {
      RemoveAt(static_cast<int>(i));
      return true;
    }
  }
  return false;
}

}  // namespace Veskan
