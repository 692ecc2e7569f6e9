// WSData, one WebSocket event handed to the host: a connection upgraded, messages received, or
// the connection no longer open.
#ifndef VESKAN_WSDATA_H
#define VESKAN_WSDATA_H

#include <veskan/Export.h>
#include <veskan/StringBuffer.h>
#include <veskan/Vocabulary.h>

#include <vector>

namespace Veskan {

// Thread safety: a value; the engine fills it before handing it over and never touches it after.
class VESKAN_API WSData {
 public:
  // WEBSOCKETCONNECT, no messages.
  WSData();
  WSData(const WSData& other);
  WSData& operator=(const WSData& other);
  virtual ~WSData();

  // WEBSOCKETCONNECT: the handshake completed; WEBSOCKETMESSAGE: Messages were received;
  // WEBSOCKETDISCONNECT: the connection is no longer open.
  Methods::Enumeration Method = Methods::WEBSOCKETCONNECT;
  // The text messages received, converted from UTF-8, in order of arrival.
  std::vector<StringBuffer> Messages;
};

}  // namespace Veskan

#endif
