// Answering an exchange with an XML document. It lives with the message model, which knows both
// messages and documents, so that the XML layer needs nothing of HTTP.
#include <veskan/Body.h>
#include <veskan/Content.h>
#include <veskan/Message.h>
#include <veskan/XmlSchema.h>

#include "http/Pooled.h"

#include <memory>

namespace Veskan {

void XmlSchema::RespondWithXml(const std::shared_ptr<Message>& message,
                               const std::shared_ptr<XmlDocument>& doc) {
  if (!message) return;
  const auto lock = message->Lock();
  if (!message->Reply) message->Reply = Detail::NewBody();
  message->Reply->Content = std::make_shared<Content>(doc);
  message->Reply->Headers[Header::ContentType] = Content::Types::TextXml;
}

}  // namespace Veskan
