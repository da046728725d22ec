// A source for requests, which knows whether anybody listens.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "lbm/pending_request.h"
#include "lbm/source.h"
#include "lbm/topics.h"

#pragma GCC visibility push(default)

namespace lbm {

class Context;
class EventQueue;

namespace details {

class OpenRequests;

}  // namespace details

// Owns a source and the requests on it, and closes the race between a client that asks and a server that starts: what
// Source::SendRequest sends while nobody listens yet reaches nobody, and nobody is told. Here a request is sent
//
//   - at once,
//   - whenever the library says that another receiver listens,
//   - after a while without a response, for what was lost on the way, and for libraries and transports that do not say
//     who listens,
//
// until the first response comes or its time is up. So a server may get a request more than once, and its answer should
// be the same each time.
//
// The context has to outlive it. While a request is open it has a descriptor registered with the context, which is then
// looked at in every round of event processing.
//
// Threads: the callbacks run on the thread that processes the context's events, or dispatches the event queue when one
// is given, without a lock held. Ask and Listeners may be called on any thread, callbacks included. Construction and
// destruction are for the owner's thread, and the destructor not for a callback of it or of its requests.
class RequestSource {
 public:
  // Takes the number of listeners whenever it changes. Must not throw.
  using ListenersCallback = std::function<void(std::size_t)>;

  // onListeners may be called before the constructor has returned. Throws LbmError.
  RequestSource(Context& ctx, const SourceTopic& topic, ListenersCallback onListeners = {}, EventQueue* eq = nullptr);
  ~RequestSource();

  RequestSource(const RequestSource&) = delete;
  RequestSource& operator=(const RequestSource&) = delete;

  // How many receiving contexts listen now, as far as the library has said by source events. The embedded engine tells
  // of every one as soon as a message can reach it, and when it goes. Other libraries tell what their transport knows:
  // one that does not know its receivers, such as multicast, counts as having none.
  std::size_t Listeners() const;

  // Sends the request as said above. Either callback may come before this has returned. Throws LbmError when the
  // library cannot send at all, and std::system_error without a descriptor for the time-out; a send that would block is
  // only made up for later.
  PendingRequest Ask(std::string data, const RequestOptions& options, ResponseCallback onResponse,
                     OutcomeCallback onOutcome = {});

  const std::string& GetTopic() const noexcept { return m_source.GetTopic(); }

 private:
  const std::shared_ptr<details::OpenRequests> m_requests;
  Source m_source;
};

}  // namespace lbm

#pragma GCC visibility pop
