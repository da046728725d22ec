#include "lbm/attributes.h"

#include <utility>

#include "lbm/errors.h"
#include "text_option.h"

namespace lbm {
namespace details {
namespace {

// The C calls of one kind of attributes and what is said when they fail.
template <class Handle>
struct Calls;

template <>
struct Calls<lbm_context_attr_t> {
  static constexpr auto kCreate = lbm_context_attr_create;
  static constexpr auto kDup = lbm_context_attr_dup;
  static constexpr auto kDestroy = lbm_context_attr_delete;
  static constexpr auto kSetopt = lbm_context_attr_setopt;
  static constexpr auto kStrSetopt = lbm_context_attr_str_setopt;
  static constexpr auto kStrGetopt = lbm_context_attr_str_getopt;
  static constexpr auto kCreateFailed = "Failed to create LBM context attributes";
  static constexpr auto kDupFailed = "Failed to duplicate LBM context attributes";
  static constexpr auto kDestroyFailed = "Failed to delete LBM context attributes";
  static constexpr auto kSetFailed = "Failed to set LBM context attribute";
  static constexpr auto kGetFailed = "Failed to get LBM context attribute";
};

template <>
struct Calls<lbm_src_topic_attr_t> {
  static constexpr auto kCreate = lbm_src_topic_attr_create;
  static constexpr auto kDup = lbm_src_topic_attr_dup;
  static constexpr auto kDestroy = lbm_src_topic_attr_delete;
  static constexpr auto kSetopt = lbm_src_topic_attr_setopt;
  static constexpr auto kStrSetopt = lbm_src_topic_attr_str_setopt;
  static constexpr auto kStrGetopt = lbm_src_topic_attr_str_getopt;
  static constexpr auto kCreateFailed = "Failed to create LBM source topic attributes";
  static constexpr auto kDupFailed = "Failed to duplicate LBM source topic attributes";
  static constexpr auto kDestroyFailed = "Failed to delete LBM source topic attributes";
  static constexpr auto kSetFailed = "Failed to set LBM source topic attribute";
  static constexpr auto kGetFailed = "Failed to get LBM source topic attribute";
};

template <>
struct Calls<lbm_rcv_topic_attr_t> {
  static constexpr auto kCreate = lbm_rcv_topic_attr_create;
  static constexpr auto kDup = lbm_rcv_topic_attr_dup;
  static constexpr auto kDestroy = lbm_rcv_topic_attr_delete;
  static constexpr auto kSetopt = lbm_rcv_topic_attr_setopt;
  static constexpr auto kStrSetopt = lbm_rcv_topic_attr_str_setopt;
  static constexpr auto kStrGetopt = lbm_rcv_topic_attr_str_getopt;
  static constexpr auto kCreateFailed = "Failed to create LBM receiver topic attributes";
  static constexpr auto kDupFailed = "Failed to duplicate LBM receiver topic attributes";
  static constexpr auto kDestroyFailed = "Failed to delete LBM receiver topic attributes";
  static constexpr auto kSetFailed = "Failed to set LBM receiver topic attribute";
  static constexpr auto kGetFailed = "Failed to get LBM receiver topic attribute";
};

template <>
struct Calls<lbm_event_queue_attr_t> {
  static constexpr auto kCreate = lbm_event_queue_attr_create;
  static constexpr auto kDup = lbm_event_queue_attr_dup;
  static constexpr auto kDestroy = lbm_event_queue_attr_delete;
  static constexpr auto kSetopt = lbm_event_queue_attr_setopt;
  static constexpr auto kStrSetopt = lbm_event_queue_attr_str_setopt;
  static constexpr auto kStrGetopt = lbm_event_queue_attr_str_getopt;
  static constexpr auto kCreateFailed = "Failed to create LBM event queue attributes";
  static constexpr auto kDupFailed = "Failed to duplicate LBM event queue attributes";
  static constexpr auto kDestroyFailed = "Failed to delete LBM event queue attributes";
  // "topic" is what operators search for.
  static constexpr auto kSetFailed = "Failed to set LBM topic attribute";
  static constexpr auto kGetFailed = "Failed to get LBM event queue attribute";
};

}  // namespace

template <class Handle>
Attributes<Handle>::Attributes() : m_attr(nullptr) {
  ThrowIfFailed(Calls<Handle>::kCreate(&m_attr), Calls<Handle>::kCreateFailed);
}

template <class Handle>
Attributes<Handle>::Attributes(const Attributes& other) : m_attr(nullptr) {
  ThrowIfFailed(Calls<Handle>::kDup(&m_attr, other.m_attr), Calls<Handle>::kDupFailed);
}

template <class Handle>
Attributes<Handle>::Attributes(Attributes&& other) noexcept : m_attr(std::exchange(other.m_attr, nullptr)) {}

template <class Handle>
Attributes<Handle>& Attributes<Handle>::operator=(const Attributes& other) {
  return *this = Attributes(other);
}

template <class Handle>
Attributes<Handle>& Attributes<Handle>::operator=(Attributes&& other) noexcept {
  Attributes taken(std::move(other));
  std::swap(m_attr, taken.m_attr);
  return *this;
}

template <class Handle>
Attributes<Handle>::~Attributes() {
  if (m_attr != nullptr && Failed(Calls<Handle>::kDestroy(m_attr))) {
    LogLbmError(Calls<Handle>::kDestroyFailed);
  }
}

template <class Handle>
void Attributes<Handle>::SetString(const char* name, const char* value) {
  ThrowIfFailed(Calls<Handle>::kStrSetopt(m_attr, name, value), Calls<Handle>::kSetFailed);
}

template <class Handle>
void Attributes<Handle>::SetBytes(const char* name, const void* value, std::size_t size) {
  ThrowIfFailed(Calls<Handle>::kSetopt(m_attr, name, value, size), Calls<Handle>::kSetFailed);
}

template <class Handle>
std::string Attributes<Handle>::GetString(const char* name) const {
  return ReadTextOption(
      [&](char* text, std::size_t* length) { return Calls<Handle>::kStrGetopt(m_attr, name, text, length); },
      Calls<Handle>::kGetFailed);
}

template class Attributes<lbm_context_attr_t>;
template class Attributes<lbm_src_topic_attr_t>;
template class Attributes<lbm_rcv_topic_attr_t>;
template class Attributes<lbm_event_queue_attr_t>;

}  // namespace details

static_assert(std::is_copy_constructible_v<ContextAttributes> &&
              std::is_nothrow_move_constructible_v<ContextAttributes>);
static_assert(sizeof(EventQueueAttributes) == 2 * sizeof(void*), "a virtual table and the handle, nothing else");

}  // namespace lbm
