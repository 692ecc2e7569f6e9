// The protocol vocabulary shared by the server engine, the client and the message objects: status
// codes with their reason phrases, request methods, URL schemes, and the states and failure kinds
// of connections, servers and message exchanges.
//
// Each vocabulary is a stateless holder of a nested `Enumeration` and static functions; every
// `ToString` returns a constant text owned by the library, and a value outside the enumeration
// prints as "##invalid value##" (SocketExceptions: "##unknown exception##"). Nothing here throws
// and everything may be used from any thread.
#ifndef VESKAN_VOCABULARY_H
#define VESKAN_VOCABULARY_H

#include <veskan/Export.h>

#include <xercesc/util/XercesDefs.hpp>

// Xerces-C's DOM node, declared only: the vocabulary needs no DOM header.
XERCES_CPP_NAMESPACE_BEGIN
class DOMNode;
XERCES_CPP_NAMESPACE_END

namespace Veskan {

// HTTP status codes (RFC 2616, section 6.1.1) as named constants.
class VESKAN_API StatusCodes {
 public:
  static constexpr int Continue = 100;
  static constexpr int SwitchingProtocols = 101;
  static constexpr int OK = 200;
  static constexpr int Created = 201;
  static constexpr int Accepted = 202;
  static constexpr int NonAuthoritativeInformation = 203;
  static constexpr int NoContent = 204;
  static constexpr int ResetContent = 205;
  static constexpr int PartialContent = 206;
  static constexpr int MultipleChoices = 300;
  static constexpr int MovedPermanently = 301;
  static constexpr int MovedTemporarily = 302;
  static constexpr int SeeOther = 303;
  static constexpr int NotModified = 304;
  static constexpr int UseProxy = 305;
  static constexpr int BadRequest = 400;
  static constexpr int Unauthorized = 401;
  static constexpr int PaymentRequired = 402;
  static constexpr int Forbidden = 403;
  static constexpr int NotFound = 404;
  static constexpr int MethodNotAllowed = 405;
  static constexpr int NotAcceptable = 406;
  static constexpr int ProxyAuthenticationRequired = 407;
  static constexpr int RequestTimeOut = 408;
  static constexpr int Conflict = 409;
  static constexpr int Gone = 410;
  static constexpr int LengthRequired = 411;
  static constexpr int PreconditionFailed = 412;
  static constexpr int RequestEntityTooLarge = 413;
  static constexpr int RequestURITooLarge = 414;
  static constexpr int UnsupportedMediaType = 415;
  static constexpr int InternalServerError = 500;
  static constexpr int NotImplemented = 501;
  static constexpr int BadGateway = 502;
  static constexpr int ServiceUnavailable = 503;
  static constexpr int GatewayTimeOut = 504;
  static constexpr int HTTPVersionNotSupported = 505;

  // The reason phrase of `code`; "Unspecified Server Error" for a code without one, 100 included.
  static const char16_t* DefaultReasonPhrase(int code);
  // True for 200 to 299.
  static bool Success(int code);
};

// Request methods, and three pseudo-methods that hand WebSocket events to the host through the
// same pipeline as requests (they never travel on the wire).
class VESKAN_API Methods {
 public:
  enum Enumeration : int {
    GET = 0,
    POST = 1,
    PUT = 2,
    DELETE = 3,
    OPTIONS = 4,
    WEBSOCKETCONNECT = 5,
    WEBSOCKETDISCONNECT = 6,
    WEBSOCKETMESSAGE = 7,
  };
  static const char16_t* ToString(Enumeration value);
};

// The URL schemes of the HTTP engine and their default ports.
class VESKAN_API Schemes {
 public:
  enum Enumeration : int {
    HTTP = 0,
    HTTPS = 1,
  };
  static const char16_t* ToString(Enumeration value);
  // "http://", "https://", or the empty string for any other value.
  static const char16_t* SchemeName(Enumeration value);
  // 80, 443, or 0 for any other value.
  static int DefaultPort(Enumeration value);
  // HTTPS for port 443, HTTP for every other port.
  static Enumeration DefaultScheme(int port);
};

// The state of one connection.
class VESKAN_API ClientStates {
 public:
  enum Enumeration : int {
    Disconnected = 0,
    Connecting = 1,
    Connected = 2,
    Disconnecting = 3,
  };
  static const char16_t* ToString(Enumeration value);
};

// The state of a server.
class VESKAN_API ServerStates {
 public:
  enum Enumeration : int {
    Stopped = 0,
    Starting = 1,
    Started = 2,
    Stopping = 3,
  };
  static const char16_t* ToString(Enumeration value);
};

// The state of a message exchange. The values are ordered: waiting for "at least" a state
// compares numbers.
class VESKAN_API ReadyStates {
 public:
  enum Enumeration : int {
    Uninitialized = 0,
    Open = 1,
    Sent = 2,
    Receiving = 3,
    Loaded = 4,
  };
  static const char16_t* ToString(Enumeration value);
};

// Why a connection ended or failed.
class VESKAN_API SocketExceptions {
 public:
  enum Enumeration : int {
    None = 0,
    NoMoreData = 1,
    HostNotFound = 2,
    PortOccupied = 3,
    ConnectionRefused = 4,
    DataRefused = 5,
    HTTPProtocolViolation = 6,
  };
  // The texts of the values; anything else is "##unknown exception##".
  static const char16_t* ToString(Enumeration value);
  // -1 whatever the argument: a value below None meaning that no failure kind is known.
  static Enumeration DefaultException(int ignored);
};

// The kinds of XML node the library tells apart.
class VESKAN_API XmlNodeType {
 public:
  enum Enumeration : int {
    None = 0,
    Element = 1,
    Text = 2,
    Attribute = 3,
    Document = 4,
  };
  static const char16_t* ToString(Enumeration value);
  // Element, Text or Document for a DOM node of that type; None for null and for every other
  // node type, attribute nodes included (Of never gives Attribute).
  static Enumeration Of(const XERCES_CPP_NAMESPACE::DOMNode* node);
};

}  // namespace Veskan

#endif
