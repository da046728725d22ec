// What the sweeps do with the engine: an application that tries again what failed, once, and insists that all it made
// works in the end.
#pragma once

#include <lbm/lbm.h>

#include <atomic>
#include <deque>
#include <functional>
#include <string>

#include "failure.h"
#include "test_support/pipe.h"
#include "test_support/private_domain.h"

namespace sweep {

// Thrown with a text that says what does not work.
class Fault : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class World {
 public:
  struct Context {
    lbm_context_t* handle = nullptr;
  };
  struct Source {
    Context* context = nullptr;
    std::string topic;
    lbm_src_t* handle = nullptr;
    std::atomic<int> subscribers{0};
    long sent = 0;
    std::atomic<long> responses{0};
    lbm_request_t* request = nullptr;
  };
  struct Receiver {
    Context* context = nullptr;
    std::string topic;
    lbm_event_queue_t* queue = nullptr;
    lbm_rcv_t* handle = nullptr;
    std::atomic<long> last{0};      // number of the last message
    std::atomic<long> messages{0};  // since
    std::atomic<int> sources{0};    // that have begun and not ended
    std::atomic<int> announced{0};  // that the notifications tell of
  };
  struct Watched {
    Context* context = nullptr;
    lbm_event_queue_t* queue = nullptr;
    test_support::Pipe pipe;
    std::atomic<int> bytes{0};
    std::atomic<bool> cancelled{false};
  };

  World(bool embedded, const Failure& failure, long first, bool lasting)
      : m_embedded(embedded), m_failure(failure), m_first(first), m_lasting(lasting) {}

  // What is between these two is swept.
  void Begin() { Arm(m_failure, m_first, m_lasting); }
  void End() { Disarm(); }

  Context& NewContext(const char* ringBytes = "131072");
  Source& NewSource(Context& context, const char* topic, const char* pacing = "source");
  Receiver& NewReceiver(Context& context, const char* topic, lbm_event_queue_t* queue = nullptr);
  lbm_event_queue_t*& NewQueue();
  Watched& Watch(Context& context, lbm_event_queue_t* queue);
  void Send(Source& source, std::size_t bytes = 0);
  void Ask(Source& source);
  void CloseRequest(Source& source);
  void Cancel(Watched& watched);
  void CancelAndAwaitNotice(Watched& watched);
  void Delete(Source& source);
  void Delete(Receiver& receiver);
  void Delete(Context& context);
  void DeleteAll();

  // Serves everybody until the condition holds or there is no more to hope for.
  void Serve(const std::function<bool()>& condition);

  // Everything hears everything.
  void Verify();
  void VerifyWatched(Watched& watched);
  void ExpectEmptyDomain() const;

 private:
  void Try(const char* what, const std::function<int()>& call);
  static void Must(const char* what, const std::function<int()>& call);
  template <class Handle>
  static void Remove(Handle*& handle, int (*remove)(Handle*));
  void ServeOnce();
  bool Await(const std::function<bool()>& condition, std::chrono::milliseconds patience);
  void Insist(const std::string& what, const std::function<bool()>& condition);
  bool Listens(const Receiver& receiver, const Source& source) const;
  int Listeners(const Source& source) const;
  void VerifyStream(Source& source);
  bool IsSteady(Source& source, int listeners);

  static int OnSource(lbm_src_t*, int event, void*, void* clientd);
  static int OnMessage(lbm_rcv_t*, lbm_msg_t* message, void* clientd);
  static int OnResponse(lbm_request_t*, lbm_msg_t* message, void* clientd);
  static int OnReadable(lbm_context_t*, int fd, unsigned long, void* clientd);
  static void OnCancelled(int fd, void* clientd);

  const bool m_embedded;
  const Failure m_failure;
  const long m_first;
  const bool m_lasting;
  const test_support::PrivateDomain m_domain;
  std::deque<Context> m_contexts;
  std::deque<Source> m_sources;
  std::deque<Receiver> m_receivers;
  std::deque<lbm_event_queue_t*> m_queues;
  std::deque<Watched> m_watched;
};

}  // namespace sweep
