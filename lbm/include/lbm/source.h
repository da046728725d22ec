// The sender on a topic.
#pragma once

#include <lbm/lbm.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "lbm/request.h"
#include "lbm/topics.h"
#include "zq/statistics/row.h"

#pragma GCC visibility push(default)

namespace lbm {

class Context;
class EventQueue;

// Owns one source. The context has to outlive it.
//
// The sends take LBM_SRC_FLUSH and LBM_SRC_NONBLOCK as flags. Those whose name has EC return the library's result, -1
// on failure with the reason in lbm_errnum(): for callers to whom a send that would block is an outcome like another.
// All others throw LbmError.
//
// Threads: the sends may be called on any thread. Event callbacks run on the thread that processes the context's
// events, or dispatches the event queue when one is given; the first may come before the constructor, or
// DoDeferredRegistration, has returned, and must not use the source then. Destroy, the destructor and the rest are for
// the owner's thread, and the destructor not for the callback.
class Source {
 public:
  // Takes event code (LBM_SRC_EVENT_...) and event data as the library gives them. Must not throw.
  using Callback = std::function<void(int, void*)>;
  using Topic = SourceTopic;

  // With an empty callback the library delivers no events at all. Throws LbmError.
  Source(Context& ctx, SourceTopic topic, Callback cb, EventQueue* eq = nullptr);

  // A source yet to be registered: for callbacks whose surroundings are built before events may come.
  explicit Source(Callback cb);

  virtual ~Source();

  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  // Registers a source made without a topic. Throws LbmError, after which it may be tried again, and std::logic_error
  // when the source is registered or was destroyed.
  void DoDeferredRegistration(Context& ctx, const SourceTopic& topic, EventQueue* eq = nullptr);

  // Ends the source for good, also one that is yet to be registered; may be called any number of times.
  void Destroy();

  void Send(const char* data, std::size_t length, int flags);
  int SendEC(const char* data, std::size_t length, int flags) noexcept;
  void SendEx(const char* data, std::size_t length, int flags, const lbm_src_send_ex_info_t* info);
  int SendExEC(const char* data, std::size_t length, int flags, const lbm_src_send_ex_info_t* info) noexcept;
  // One message of num pieces.
  void Sendv(const iovec* pieces, int num, int flags);
  void SendvEx(const iovec* pieces, int num, int flags, const lbm_src_send_ex_info_t* info);

  // Every receiver of the request may answer, for as long as the Request lives. Who begins to listen later does not get
  // it, nor is anybody told when nobody listens; RequestSource is for those who have to know.
  [[nodiscard]] Request SendRequest(const char* data, std::size_t length, int flags, MessageCallback cb,
                                    EventQueue* eq = nullptr);
  // The same; null when it could not be sent, with the reason in lbm_errnum().
  [[nodiscard]] std::unique_ptr<Request> SendRequestEC(const char* data, std::size_t length, int flags,
                                                       MessageCallback cb, EventQueue* eq = nullptr);

  // Sets an option of the live source; throws LbmError.
  void SetString(const char* name, const char* value);

  // The transport that the source sends on: its number, which is kept once it is known, and its name. Throw LbmError.
  std::uint32_t GetTransportId();
  std::string GetTransportSource() const;

  // The topic's name, or that of the last try to register; empty before the first.
  const std::string& GetTopic() const noexcept { return m_topic; }

  // "CONNECT", "DISCONNECT", "WAKEUP"; "UNKNOWN" for any other event.
  static const char* EventToString(int event) noexcept;

  // How the library delivers events and responses: clientd is the Source and the Request. Always return 0.
  static int LbmCallback(lbm_src_t* src, int event, void* eventData, void* clientd);
  static int LbmRequestCallback(lbm_request_t* req, lbm_msg_t* msg, void* clientd);

  operator lbm_src_t*() noexcept { return m_src; }
  operator const lbm_src_t*() const noexcept { return m_src; }

 private:
  void Create(Context& ctx, const SourceTopic& topic, EventQueue* eq);
  int Count(int result, std::size_t length, int flags) noexcept;

  lbm_src_t* m_src = nullptr;
  Callback m_cbk;
  std::string m_topic;
  std::uint32_t m_transport_id = 0;
  bool m_destroyed = false;
  std::shared_ptr<zq::statistics::Row> m_row;  // while it is registered; requests share it
};

}  // namespace lbm

#pragma GCC visibility pop
