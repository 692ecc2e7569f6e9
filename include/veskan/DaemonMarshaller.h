// DaemonMarshaller: carries the network engine's events from a worker thread to the host's thread,
// where the host's handlers run; and the signal types through which the engine reports.
#ifndef VESKAN_DAEMONMARSHALLER_H
#define VESKAN_DAEMONMARSHALLER_H

#include <veskan/EngineSignal.h>
#include <veskan/Export.h>
#include <veskan/Message.h>
#include <veskan/StringBuffer.h>

#include <memory>
#include <thread>

namespace Veskan {

class Server;
class Client;
class Part;
class WSData;

namespace Detail {
class EventQueue;
}

// Hands one event at a time to the host. In direct mode a hand-over fires the signal at once on the
// calling (worker) thread. In window mode the thread that constructed the marshaller owns an event
// queue: a hand-over from any other thread posts the call there and blocks until the owner thread
// has run every slot (in RunEventLoopOnce or Join), which keeps the order of one connection's
// events; a hand-over made on the owner thread runs at once and so never waits for itself.
//
// Thread safety: the Marshal_ operations may be called from any thread. A worker blocked in a
// hand-over holds no lock of the engine. The destructor runs on the owner thread, after every
// worker that could hand over through it has ended; a hand-over still waiting then is released
// without its slots being run.
class VESKAN_API DaemonMarshaller : public ReadyStateDelivery {
 public:
  using MessageSignal = Message::Signal;
  using ClientSignal = EngineSignal<const std::shared_ptr<Client>&>;
  using ClientMessageSignal =
      EngineSignal<const std::shared_ptr<Client>&, const std::shared_ptr<Message>&>;
  using ClientMessageStringBufferStringBufferSignal =
      EngineSignal<const std::shared_ptr<Client>&, const std::shared_ptr<Message>&,
                   const StringBuffer&, const StringBuffer&>;
  using ServerClientSignal =
      EngineSignal<const std::shared_ptr<Server>&, const std::shared_ptr<Client>&>;
  using ServerClientMessageSignal =
      EngineSignal<const std::shared_ptr<Server>&, const std::shared_ptr<Client>&,
                   const std::shared_ptr<Message>&>;
  using ServerSignal = EngineSignal<const std::shared_ptr<Server>&>;
  using ServerClientMessageBoolSignal =
      EngineSignal<const std::shared_ptr<Server>&, const std::shared_ptr<Client>&,
                   const std::shared_ptr<Message>&, bool&>;
  using VoidSignal = EngineSignal<>;
  using ServerClientMessagePartIntSignal =
      EngineSignal<const std::shared_ptr<Server>&, const std::shared_ptr<Client>&,
                   const std::shared_ptr<Message>&, const std::shared_ptr<Part>&, int>;
  using ClientMessagePartIntSignal =
      EngineSignal<const std::shared_ptr<Client>&, const std::shared_ptr<Message>&,
                   const std::shared_ptr<Part>&, int>;
  using MessageBoolIntIntSignal = EngineSignal<const std::shared_ptr<Message>&, bool, int, int>;
  using ServerWebSocketMessageSignal =
      EngineSignal<const std::shared_ptr<Server>&, const std::shared_ptr<Client>&,
                   const std::shared_ptr<WSData>&>;
  using VoidPointerSignal = EngineSignal<void*>;

  // One hand-over: its kind (1..14, the order of the Marshal_ operations below), the signal of
  // that kind and the arguments it is fired with. Lives on the stack of the handing-over thread
  // until the call has run.
  struct MarshalData {
    int Kind = 0;
    MessageSignal* Message = nullptr;
    ClientSignal* Client = nullptr;
    ClientMessageSignal* ClientMessage = nullptr;
    ClientMessageStringBufferStringBufferSignal* ClientMessageStringBufferStringBuffer = nullptr;
    ServerClientSignal* ServerClient = nullptr;
    ServerClientMessageSignal* ServerClientMessage = nullptr;
    ServerSignal* Server = nullptr;
    ServerClientMessageBoolSignal* ServerClientMessageBool = nullptr;
    VoidSignal* Void = nullptr;
    ServerClientMessagePartIntSignal* ServerClientMessagePartInt = nullptr;
    ClientMessagePartIntSignal* ClientMessagePartInt = nullptr;
    MessageBoolIntIntSignal* MessageBoolIntInt = nullptr;
    ServerWebSocketMessageSignal* ServerWebSocketMessage = nullptr;
    VoidPointerSignal* VoidPointer = nullptr;

    const std::shared_ptr<Veskan::Server>* ServerArgument = nullptr;
    const std::shared_ptr<Veskan::Client>* ClientArgument = nullptr;
    const std::shared_ptr<Veskan::Message>* MessageArgument = nullptr;
    const std::shared_ptr<Part>* PartArgument = nullptr;
    const std::shared_ptr<WSData>* WSDataArgument = nullptr;
    bool* BoolReference = nullptr;
    bool BoolArgument = false;
    int IntArgument = 0;
    int SecondIntArgument = 0;
    const StringBuffer* TextArgument = nullptr;
    const StringBuffer* SecondTextArgument = nullptr;
    void* PointerArgument = nullptr;
  };

  // `direct`: fire signals on the calling thread. Otherwise the current thread becomes the owner
  // and gets an event queue (shared with any other window-mode marshaller it owns).
  explicit DaemonMarshaller(bool direct);
  DaemonMarshaller(const DaemonMarshaller&) = delete;
  DaemonMarshaller& operator=(const DaemonMarshaller&) = delete;
  ~DaemonMarshaller() override;

  bool IsDirect() const { return direct_; }

  void Marshal_Message(MessageSignal& signal, const std::shared_ptr<Veskan::Message>& message);
  void Marshal_Client(ClientSignal& signal, const std::shared_ptr<Veskan::Client>& client);
  void Marshal_ClientMessage(ClientMessageSignal& signal,
                             const std::shared_ptr<Veskan::Client>& client,
                             const std::shared_ptr<Veskan::Message>& message);
  void Marshal_ClientMessageStringBufferStringBuffer(
      ClientMessageStringBufferStringBufferSignal& signal,
      const std::shared_ptr<Veskan::Client>& client,
      const std::shared_ptr<Veskan::Message>& message, const StringBuffer& text,
      const StringBuffer& secondText);
  void Marshal_ServerClient(ServerClientSignal& signal,
                            const std::shared_ptr<Veskan::Server>& server,
                            const std::shared_ptr<Veskan::Client>& client);
  void Marshal_ServerClientMessage(ServerClientMessageSignal& signal,
                                   const std::shared_ptr<Veskan::Server>& server,
                                   const std::shared_ptr<Veskan::Client>& client,
                                   const std::shared_ptr<Veskan::Message>& message);
  void Marshal_Server(ServerSignal& signal, const std::shared_ptr<Veskan::Server>& server);
  void Marshal_ServerClientMessageBool(ServerClientMessageBoolSignal& signal,
                                       const std::shared_ptr<Veskan::Server>& server,
                                       const std::shared_ptr<Veskan::Client>& client,
                                       const std::shared_ptr<Veskan::Message>& message,
                                       bool& value);
  void Marshal_Void(VoidSignal& signal);
  void Marshal_ServerClientMessagePartInt(ServerClientMessagePartIntSignal& signal,
                                          const std::shared_ptr<Veskan::Server>& server,
                                          const std::shared_ptr<Veskan::Client>& client,
                                          const std::shared_ptr<Veskan::Message>& message,
                                          const std::shared_ptr<Part>& part, int value);
  void Marshal_ClientMessagePartInt(ClientMessagePartIntSignal& signal,
                                    const std::shared_ptr<Veskan::Client>& client,
                                    const std::shared_ptr<Veskan::Message>& message,
                                    const std::shared_ptr<Part>& part, int value);
  void Marshal_MessageBoolIntInt(MessageBoolIntIntSignal& signal,
                                 const std::shared_ptr<Veskan::Message>& message, bool flag,
                                 int value, int secondValue);
  void Marshal_ServerWebSocketMessage(ServerWebSocketMessageSignal& signal,
                                      const std::shared_ptr<Veskan::Server>& server,
                                      const std::shared_ptr<Veskan::Client>& client,
                                      const std::shared_ptr<WSData>& data);
  void Marshal_VoidPointer(VoidPointerSignal& signal, void* pointer);

  // The common hand-over of a filled record (see the class comment). A kind outside 1..14 is
  // ignored.
  void Marshal(MarshalData* data);

  // For the engine: runs `work(context, true)` where the slots run, without waiting for it. In
  // window mode, from a thread other than the owner, it is queued behind the hand-overs made
  // before it and this returns at once; otherwise it runs now. A queued call that is released
  // (the marshaller goes first) has `work(context, false)` instead, which must only clean up.
  // The owner thread learns of queued calls from WakeOwner, which a worker calls once it has
  // queued a cycle's worth, so that the host runs them in one turn rather than one per wake-up;
  // it returns whether there were any.
  void Post(void (*work)(void* context, bool run), void* context);
  bool WakeOwner();

  // Message ready-state changes go through kind 1.
  void Deliver(Message::Signal& signal, const std::shared_ptr<Veskan::Message>& message) override;

  // Waits for `thread` to end and joins it. When the current thread owns an event queue (it is
  // the owner of this or of another window-mode marshaller), the queue keeps running meanwhile,
  // so that hand-overs to this thread, from the ending thread or any other, complete; a pending
  // quit request does not end the wait. Otherwise (direct mode, any other thread) it simply
  // joins. Returns at once, without joining, for a thread that is not joinable or is the current
  // thread. `ended`, when given, is set false on entry and true once the thread has been joined.
  void Join(std::thread& thread, bool* ended = nullptr);

  // True when the current thread owns an event queue (a window-mode marshaller made on it lives).
  static bool CurrentThreadHasEventLoop();
  // One turn of the current thread's event loop: waits at most 20 ms for a hand-over, then runs
  // every one queued by then. Returns false when a quit was requested on this thread
  // (the request stays visible to every later call), true otherwise. With a quit pending it does
  // not wait, but still runs the hand-overs already queued, so that a host that keeps pumping
  // while it shuts down releases its workers. On a thread without a queue it waits 20 ms (none
  // with a quit pending).
  static bool RunEventLoopOnce();
  // Asks the current thread's event loop to quit (the counterpart of posting WM_QUIT); later
  // RunEventLoopOnce calls return false without waiting, until ResetQuit.
  static void PostQuit();
  // Clears a quit request of the current thread.
  static void ResetQuit();

 private:
  // Runs the slots of the record's kind with its arguments on the current thread.
  static void Dispatch(MarshalData* data);

  bool direct_;
  std::shared_ptr<Detail::EventQueue> queue_;  // null in direct mode
  std::thread::id owner_;                      // default-constructed in direct mode
};

}  // namespace Veskan

#endif
