// DaemonMarshaller: hand-over of engine events, directly or through the owner thread's event queue.
#include <veskan/DaemonMarshaller.h>

#include <veskan/Logger.h>

#include "net/EventQueue.h"

#include <chrono>
#include <exception>
#include <system_error>

namespace Veskan {

namespace {

// The kinds of hand-over, in the order of the Marshal_ operations.
enum Kind : int {
  KindMessage = 1,
  KindClient = 2,
  KindClientMessage = 3,
  KindClientMessageStringBufferStringBuffer = 4,
  KindServerClient = 5,
  KindServerClientMessage = 6,
  KindServer = 7,
  KindServerClientMessageBool = 8,
  KindVoid = 9,
  KindServerClientMessagePartInt = 10,
  KindClientMessagePartInt = 11,
  KindMessageBoolIntInt = 12,
  KindServerWebSocketMessage = 13,
  KindVoidPointer = 14,
};

constexpr auto EventLoopTurn = std::chrono::milliseconds(20);

void LogSlotFailure(int kind, const char* what) noexcept {
  try {
    Logger::Line(Logger::Severity::Error, "Veskan::DaemonMarshaller::Marshal")
        << " kind: " << kind << " error: " << what;
  } catch (...) {
    // Out of memory while reporting: the hand-over must still complete.
  }
}

}  // namespace

DaemonMarshaller::DaemonMarshaller(bool direct) : direct_(direct) {
  if (!direct_) {
    queue_ = Detail::EventQueue::ForCurrentThread();
    owner_ = std::this_thread::get_id();
  }
  Logger::Line(Logger::Severity::Trace, "Veskan::DaemonMarshaller::DaemonMarshaller")
      << " direct: " << direct_;
}

DaemonMarshaller::~DaemonMarshaller() {
  if (!queue_) return;
  const std::size_t released = queue_->Release(this);
  if (released != 0) {
    Logger::Line(Logger::Severity::Warning, "Veskan::DaemonMarshaller::~DaemonMarshaller")
        << " released: " << released;
  }
}

void DaemonMarshaller::Marshal(MarshalData* data) {
  if (data == nullptr || data->Kind < KindMessage || data->Kind > KindVoidPointer) {
    Logger::Line(Logger::Severity::Debug, "Veskan::DaemonMarshaller::Marshal")
        << " ignored kind: " << (data == nullptr ? 0 : data->Kind);
    return;
  }
  if (direct_ || std::this_thread::get_id() == owner_) {
    Dispatch(data);
    return;
  }
  // A copy, because the owner may destroy this marshaller while this thread waits: the queue (and
  // its lock, which the wait takes back) must outlive the wait; this object is not touched again.
  const std::shared_ptr<Detail::EventQueue> queue = queue_;
  queue->Call([](void* context) { Dispatch(static_cast<MarshalData*>(context)); }, data, this);
}

void DaemonMarshaller::Post(void (*work)(void* context, bool run), void* context) {
  if (direct_ || std::this_thread::get_id() == owner_) {
    work(context, true);
    return;
  }
  queue_->Post(work, context, this);
}

bool DaemonMarshaller::WakeOwner() {
  return queue_ && queue_->WakeOwner();
}

void DaemonMarshaller::Dispatch(MarshalData* data) {
  MarshalData& d = *data;
  try {
    switch (d.Kind) {
      case KindMessage:
        if (d.Message != nullptr && d.MessageArgument != nullptr) {
          (*d.Message)(*d.MessageArgument);
        }
        break;
      case KindClient:
        if (d.Client != nullptr && d.ClientArgument != nullptr) (*d.Client)(*d.ClientArgument);
        break;
      case KindClientMessage:
        if (d.ClientMessage != nullptr && d.ClientArgument != nullptr &&
            d.MessageArgument != nullptr) {
          (*d.ClientMessage)(*d.ClientArgument, *d.MessageArgument);
        }
        break;
      case KindClientMessageStringBufferStringBuffer:
        if (d.ClientMessageStringBufferStringBuffer != nullptr && d.ClientArgument != nullptr &&
            d.MessageArgument != nullptr && d.TextArgument != nullptr &&
            d.SecondTextArgument != nullptr) {
          (*d.ClientMessageStringBufferStringBuffer)(*d.ClientArgument, *d.MessageArgument,
                                                     *d.TextArgument, *d.SecondTextArgument);
        }
        break;
      case KindServerClient:
        if (d.ServerClient != nullptr && d.ServerArgument != nullptr &&
            d.ClientArgument != nullptr) {
          (*d.ServerClient)(*d.ServerArgument, *d.ClientArgument);
        }
        break;
      case KindServerClientMessage:
        if (d.ServerClientMessage != nullptr && d.ServerArgument != nullptr &&
            d.ClientArgument != nullptr && d.MessageArgument != nullptr) {
          (*d.ServerClientMessage)(*d.ServerArgument, *d.ClientArgument, *d.MessageArgument);
        }
        break;
      case KindServer:
        if (d.Server != nullptr && d.ServerArgument != nullptr) (*d.Server)(*d.ServerArgument);
        break;
      case KindServerClientMessageBool:
        if (d.ServerClientMessageBool != nullptr && d.ServerArgument != nullptr &&
            d.ClientArgument != nullptr && d.MessageArgument != nullptr &&
            d.BoolReference != nullptr) {
          (*d.ServerClientMessageBool)(*d.ServerArgument, *d.ClientArgument, *d.MessageArgument,
                                       *d.BoolReference);
        }
        break;
      case KindVoid:
        if (d.Void != nullptr) (*d.Void)();
        break;
      case KindServerClientMessagePartInt:
        if (d.ServerClientMessagePartInt != nullptr && d.ServerArgument != nullptr &&
            d.ClientArgument != nullptr && d.MessageArgument != nullptr &&
            d.PartArgument != nullptr) {
          (*d.ServerClientMessagePartInt)(*d.ServerArgument, *d.ClientArgument, *d.MessageArgument,
                                          *d.PartArgument, d.IntArgument);
        }
        break;
      case KindClientMessagePartInt:
        if (d.ClientMessagePartInt != nullptr && d.ClientArgument != nullptr &&
            d.MessageArgument != nullptr && d.PartArgument != nullptr) {
          (*d.ClientMessagePartInt)(*d.ClientArgument, *d.MessageArgument, *d.PartArgument,
                                    d.IntArgument);
        }
        break;
      case KindMessageBoolIntInt:
        if (d.MessageBoolIntInt != nullptr && d.MessageArgument != nullptr) {
          (*d.MessageBoolIntInt)(*d.MessageArgument, d.BoolArgument, d.IntArgument,
                                 d.SecondIntArgument);
        }
        break;
      case KindServerWebSocketMessage:
        if (d.ServerWebSocketMessage != nullptr && d.ServerArgument != nullptr &&
            d.ClientArgument != nullptr && d.WSDataArgument != nullptr) {
          (*d.ServerWebSocketMessage)(*d.ServerArgument, *d.ClientArgument, *d.WSDataArgument);
        }
        break;
      case KindVoidPointer:
        if (d.VoidPointer != nullptr) (*d.VoidPointer)(d.PointerArgument);
        break;
      default:  // an int from the caller, not one of our enumerations
        break;
    }
  } catch (const std::exception& error) {
    LogSlotFailure(d.Kind, error.what());
  } catch (...) {
    LogSlotFailure(d.Kind, "unknown exception");
  }
}

void DaemonMarshaller::Marshal_Message(MessageSignal& signal,
                                       const std::shared_ptr<Veskan::Message>& message) {
  MarshalData data;
  data.Kind = KindMessage;
  data.Message = &signal;
  data.MessageArgument = &message;
  Marshal(&data);
}

void DaemonMarshaller::Marshal_Client(ClientSignal& signal,
                                      const std::shared_ptr<Veskan::Client>& client) {
  MarshalData data;
  data.Kind = KindClient;
  data.Client = &signal;
  data.ClientArgument = &client;
  Marshal(&data);
}

void DaemonMarshaller::Marshal_ClientMessage(ClientMessageSignal& signal,
                                             const std::shared_ptr<Veskan::Client>& client,
                                             const std::shared_ptr<Veskan::Message>& message) {
  MarshalData data;
  data.Kind = KindClientMessage;
  data.ClientMessage = &signal;
  data.ClientArgument = &client;
  data.MessageArgument = &message;
  Marshal(&data);
}

void DaemonMarshaller::Marshal_ClientMessageStringBufferStringBuffer(
    ClientMessageStringBufferStringBufferSignal& signal,
    const std::shared_ptr<Veskan::Client>& client, const std::shared_ptr<Veskan::Message>& message,
    const StringBuffer& text, const StringBuffer& secondText) {
  MarshalData data;
  data.Kind = KindClientMessageStringBufferStringBuffer;
  data.ClientMessageStringBufferStringBuffer = &signal;
  data.ClientArgument = &client;
  data.MessageArgument = &message;
  data.TextArgument = &text;
  data.SecondTextArgument = &secondText;
  Marshal(&data);
}

void DaemonMarshaller::Marshal_ServerClient(ServerClientSignal& signal,
                                            const std::shared_ptr<Veskan::Server>& server,
                                            const std::shared_ptr<Veskan::Client>& client) {
  MarshalData data;
  data.Kind = KindServerClient;
  data.ServerClient = &signal;
  data.ServerArgument = &server;
  data.ClientArgument = &client;
  Marshal(&data);
}

void DaemonMarshaller::Marshal_ServerClientMessage(
    ServerClientMessageSignal& signal, const std::shared_ptr<Veskan::Server>& server,
    const std::shared_ptr<Veskan::Client>& client,
    const std::shared_ptr<Veskan::Message>& message) {
  MarshalData data;
  data.Kind = KindServerClientMessage;
  data.ServerClientMessage = &signal;
  data.ServerArgument = &server;
  data.ClientArgument = &client;
  data.MessageArgument = &message;
  Marshal(&data);
}

void DaemonMarshaller::Marshal_Server(ServerSignal& signal,
                                      const std::shared_ptr<Veskan::Server>& server) {
  MarshalData data;
  data.Kind = KindServer;
  data.Server = &signal;
  data.ServerArgument = &server;
  Marshal(&data);
}

void DaemonMarshaller::Marshal_ServerClientMessageBool(
    ServerClientMessageBoolSignal& signal, const std::shared_ptr<Veskan::Server>& server,
    const std::shared_ptr<Veskan::Client>& client, const std::shared_ptr<Veskan::Message>& message,
    bool& value) {
  MarshalData data;
  data.Kind = KindServerClientMessageBool;
  data.ServerClientMessageBool = &signal;
  data.ServerArgument = &server;
  data.ClientArgument = &client;
  data.MessageArgument = &message;
  data.BoolReference = &value;
  Marshal(&data);
}

void DaemonMarshaller::Marshal_Void(VoidSignal& signal) {
  MarshalData data;
  data.Kind = KindVoid;
  data.Void = &signal;
  Marshal(&data);
}

void DaemonMarshaller::Marshal_ServerClientMessagePartInt(
    ServerClientMessagePartIntSignal& signal, const std::shared_ptr<Veskan::Server>& server,
    const std::shared_ptr<Veskan::Client>& client, const std::shared_ptr<Veskan::Message>& message,
    const std::shared_ptr<Part>& part, int value) {
  MarshalData data;
  data.Kind = KindServerClientMessagePartInt;
  data.ServerClientMessagePartInt = &signal;
  data.ServerArgument = &server;
  data.ClientArgument = &client;
  data.MessageArgument = &message;
  data.PartArgument = &part;
  data.IntArgument = value;
  Marshal(&data);
}

void DaemonMarshaller::Marshal_ClientMessagePartInt(ClientMessagePartIntSignal& signal,
                                                    const std::shared_ptr<Veskan::Client>& client,
                                                    const std::shared_ptr<Veskan::Message>& message,
                                                    const std::shared_ptr<Part>& part, int value) {
  MarshalData data;
  data.Kind = KindClientMessagePartInt;
  data.ClientMessagePartInt = &signal;
  data.ClientArgument = &client;
  data.MessageArgument = &message;
  data.PartArgument = &part;
  data.IntArgument = value;
  Marshal(&data);
}

void DaemonMarshaller::Marshal_MessageBoolIntInt(MessageBoolIntIntSignal& signal,
                                                 const std::shared_ptr<Veskan::Message>& message,
                                                 bool flag, int value, int secondValue) {
  MarshalData data;
  data.Kind = KindMessageBoolIntInt;
  data.MessageBoolIntInt = &signal;
  data.MessageArgument = &message;
  data.BoolArgument = flag;
  data.IntArgument = value;
  data.SecondIntArgument = secondValue;
  Marshal(&data);
}

void DaemonMarshaller::Marshal_ServerWebSocketMessage(ServerWebSocketMessageSignal& signal,
                                                      const std::shared_ptr<Veskan::Server>& server,
                                                      const std::shared_ptr<Veskan::Client>& client,
                                                      const std::shared_ptr<WSData>& data) {
  MarshalData record;
  record.Kind = KindServerWebSocketMessage;
  record.ServerWebSocketMessage = &signal;
  record.ServerArgument = &server;
  record.ClientArgument = &client;
  record.WSDataArgument = &data;
  Marshal(&record);
}

void DaemonMarshaller::Marshal_VoidPointer(VoidPointerSignal& signal, void* pointer) {
  MarshalData data;
  data.Kind = KindVoidPointer;
  data.VoidPointer = &signal;
  data.PointerArgument = pointer;
  Marshal(&data);
}

void DaemonMarshaller::Deliver(Message::Signal& signal,
                               const std::shared_ptr<Veskan::Message>& message) {
  if (signal.empty()) return;  // nobody listens: no hand-over to the owner thread
  Marshal_Message(signal, message);
}

void DaemonMarshaller::Join(std::thread& thread, bool* ended) {
  if (ended != nullptr) *ended = false;
  if (!thread.joinable() || thread.get_id() == std::this_thread::get_id()) return;

  const std::shared_ptr<Detail::EventQueue> queue = Detail::EventQueue::OfCurrentThread();
  if (!queue) {
    thread.join();
    if (ended != nullptr) *ended = true;
    return;
  }

  // std::thread cannot be joined with a time-out, so a helper joins it and wakes this thread,
  // which meanwhile runs the hand-overs that the ending thread (or any other) makes to it. A
  // pending quit request does not end the wait.
  bool joined = false;
  std::thread joiner;
  try {
    joiner = std::thread([&thread, &queue, &joined] {
      thread.join();
      queue->SetAndWakeOwner(joined);
    });
  } catch (const std::system_error& error) {
    Logger::Line(Logger::Severity::Error, "Veskan::DaemonMarshaller::Join", error.code().value())
        << " error: " << error.what();
    // Without a helper: join without running the queue.
    thread.join();
    if (ended != nullptr) *ended = true;
    return;
  }
  while (!queue->Run(EventLoopTurn, &joined)) {
  }
  joiner.join();
  if (ended != nullptr) *ended = true;
}

bool DaemonMarshaller::CurrentThreadHasEventLoop() {
  return Detail::EventQueue::OfCurrentThread() != nullptr;
}

bool DaemonMarshaller::RunEventLoopOnce() {
  const bool quit = Detail::EventQueue::QuitRequested();
  const std::shared_ptr<Detail::EventQueue> queue = Detail::EventQueue::OfCurrentThread();
  if (queue) {
    // With a quit pending the turn does not wait, but hand-overs already queued still run, so
    // that a host that keeps pumping while it shuts down never strands a worker.
    queue->Run(quit ? std::chrono::steady_clock::duration::zero() : EventLoopTurn, nullptr);
  } else if (!quit) {
    std::this_thread::sleep_for(EventLoopTurn);
  }
  return !Detail::EventQueue::QuitRequested();
}

void DaemonMarshaller::PostQuit() {
  Detail::EventQueue::PostQuit();
}

void DaemonMarshaller::ResetQuit() {
  Detail::EventQueue::ResetQuit();
}

}  // namespace Veskan
