// Texts and rules of the protocol vocabulary.
#include <veskan/Vocabulary.h>

namespace Veskan {

namespace {

constexpr char16_t InvalidValue[] = u"##invalid value##";

}  // namespace

const char16_t* StatusCodes::DefaultReasonPhrase(int code) {
  switch (code) {
    case SwitchingProtocols:
      return u"Switching Protocols";
    case OK:
      return u"OK";
    case Created:
      return u"Created";
    case Accepted:
      return u"Accepted";
    case NonAuthoritativeInformation:
      return u"Non-Authoritative Information";
    case NoContent:
      return u"No Content";
    case ResetContent:
      return u"Reset Content";
    case PartialContent:
      return u"Partial Content";
    case MultipleChoices:
      return u"Multiple Choices";
    case MovedPermanently:
      return u"Moved Permanently";
    case MovedTemporarily:
      return u"Moved Temporarily";
    case SeeOther:
      return u"See Other";
    case NotModified:
      return u"Not Modified";
    case UseProxy:
      return u"Use Proxy";
    case BadRequest:
      return u"Bad Request";
    case Unauthorized:
      return u"Unauthorized";
    case PaymentRequired:
      return u"Payment Required";
    case Forbidden:
      return u"Forbidden";
    case NotFound:
      return u"Not Found";
    case MethodNotAllowed:
      return u"Method Not Allowed";
    case NotAcceptable:
      return u"Not Acceptable";
    case ProxyAuthenticationRequired:
      return u"Proxy Authentication Required";
    case RequestTimeOut:
      return u"Request Time-out";
    case Conflict:
      return u"Conflict";
    case Gone:
      return u"Gone";
    case LengthRequired:
      return u"Length Required";
    case PreconditionFailed:
      return u"Precondition Failed";
    case RequestEntityTooLarge:
      return u"Request Entity Too Large";
    case RequestURITooLarge:
      return u"Request-URI Too Large";
    case UnsupportedMediaType:
      return u"Unsupported Media Type";
    case InternalServerError:
      return u"Internal Server Error";
    case NotImplemented:
      return u"Not Implemented";
    case BadGateway:
      return u"Bad Gateway";
    case ServiceUnavailable:
      return u"Service Unavailable";
    case GatewayTimeOut:
      return u"Gateway Time-out";
    case HTTPVersionNotSupported:
      return u"HTTP Version not supported";
    default:  // a plain int, not one of our enumerations: 100 lands here too
      return u"Unspecified Server Error";
  }
}

bool StatusCodes::Success(int code) {
  return code / 100 == 2;
}

const char16_t* Methods::ToString(Enumeration value) {
  switch (value) {
    case GET:
      return u"GET";
    case POST:
      return u"POST";
    case PUT:
      return u"PUT";
    case DELETE:
      return u"DELETE";
    case OPTIONS:
      return u"OPTIONS";
    case WEBSOCKETCONNECT:
      return u"WEBSOCKETCONNECT";
    case WEBSOCKETDISCONNECT:
      return u"WEBSOCKETDISCONNECT";
    case WEBSOCKETMESSAGE:
      return u"WEBSOCKETMESSAGE";
  }
  return InvalidValue;
}

const char16_t* Schemes::ToString(Enumeration value) {
  switch (value) {
    case HTTP:
      return u"HTTP";
    case HTTPS:
      return u"HTTPS";
  }
  return InvalidValue;
}

const char16_t* Schemes::SchemeName(Enumeration value) {
  switch (value) {
    case HTTP:
      return u"http://";
    case HTTPS:
      return u"https://";
  }
  return u"";
}

int Schemes::DefaultPort(Enumeration value) {
  switch (value) {
    case HTTP:
      return 80;
    case HTTPS:
      return 443;
  }
  return 0;
}

Schemes::Enumeration Schemes::DefaultScheme(int port) {
  return port == 443 ? HTTPS : HTTP;
}

const char16_t* ClientStates::ToString(Enumeration value) {
  switch (value) {
    case Disconnected:
      return u"Disconnected";
    case Connecting:
      return u"Connecting";
    case Connected:
      return u"Connected";
    case Disconnecting:
      return u"Disconnecting";
  }
  return InvalidValue;
}

const char16_t* ServerStates::ToString(Enumeration value) {
  switch (value) {
    case Stopped:
      return u"Stopped";
    case Starting:
      return u"Starting";
    case Started:
      return u"Started";
    case Stopping:
      return u"Stopping";
  }
  return InvalidValue;
}

const char16_t* ReadyStates::ToString(Enumeration value) {
  switch (value) {
    case Uninitialized:
      return u"Uninitialized";
    case Open:
      return u"Open";
    case Sent:
      return u"Sent";
    case Receiving:
      return u"Receiving";
    case Loaded:
      return u"Loaded";
  }
  return InvalidValue;
}

const char16_t* SocketExceptions::ToString(Enumeration value) {
  switch (value) {
    case None:
      return u"None";
    case NoMoreData:
      return u"No more data";
    case HostNotFound:
      return u"Host not found";
    case PortOccupied:
      return u"Port occupied";
    case ConnectionRefused:
      return u"Connection refused";
    case DataRefused:
      return u"Data refused";
    case HTTPProtocolViolation:
      return u"HTTP Protocol violation";
  }
  return u"##unknown exception##";
}

SocketExceptions::Enumeration SocketExceptions::DefaultException(int) {
  return static_cast<Enumeration>(-1);
}

const char16_t* XmlNodeType::ToString(Enumeration value) {
  switch (value) {
    case None:
      return u"None";
    case Element:
      return u"Element";
    case Text:
      return u"Text";
    case Attribute:
      return u"Attribute";
    case Document:
      return u"Document";
  }
  return InvalidValue;
}

}  // namespace Veskan
