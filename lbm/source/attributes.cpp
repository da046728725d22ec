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
  static constexpr auto create = lbm_context_attr_create;
  static constexpr auto dup = lbm_context_attr_dup;
  static constexpr auto destroy = lbm_context_attr_delete;
  static constexpr auto setopt = lbm_context_attr_setopt;
  static constexpr auto strSetopt = lbm_context_attr_str_setopt;
  static constexpr auto strGetopt = lbm_context_attr_str_getopt;
  static constexpr auto createFailed = "Failed to create LBM context attributes";
  static constexpr auto dupFailed = "Failed to duplicate LBM context attributes";
  static constexpr auto destroyFailed = "Failed to delete LBM context attributes";
  static constexpr auto setFailed = "Failed to set LBM context attribute";
  static constexpr auto getFailed = "Failed to get LBM context attribute";
};

template <>
struct Calls<lbm_src_topic_attr_t> {
  static constexpr auto create = lbm_src_topic_attr_create;
  static constexpr auto dup = lbm_src_topic_attr_dup;
  static constexpr auto destroy = lbm_src_topic_attr_delete;
  static constexpr auto setopt = lbm_src_topic_attr_setopt;
  static constexpr auto strSetopt = lbm_src_topic_attr_str_setopt;
  static constexpr auto strGetopt = lbm_src_topic_attr_str_getopt;
  static constexpr auto createFailed = "Failed to create LBM source topic attributes";
  static constexpr auto dupFailed = "Failed to duplicate LBM source topic attributes";
  static constexpr auto destroyFailed = "Failed to delete LBM source topic attributes";
  static constexpr auto setFailed = "Failed to set LBM source topic attribute";
  static constexpr auto getFailed = "Failed to get LBM source topic attribute";
};

template <>
struct Calls<lbm_rcv_topic_attr_t> {
  static constexpr auto create = lbm_rcv_topic_attr_create;
  static constexpr auto dup = lbm_rcv_topic_attr_dup;
  static constexpr auto destroy = lbm_rcv_topic_attr_delete;
  static constexpr auto setopt = lbm_rcv_topic_attr_setopt;
  static constexpr auto strSetopt = lbm_rcv_topic_attr_str_setopt;
  static constexpr auto strGetopt = lbm_rcv_topic_attr_str_getopt;
  static constexpr auto createFailed = "Failed to create LBM receiver topic attributes";
  static constexpr auto dupFailed = "Failed to duplicate LBM receiver topic attributes";
  static constexpr auto destroyFailed = "Failed to delete LBM receiver topic attributes";
  static constexpr auto setFailed = "Failed to set LBM receiver topic attribute";
  static constexpr auto getFailed = "Failed to get LBM receiver topic attribute";
};

template <>
struct Calls<lbm_event_queue_attr_t> {
  static constexpr auto create = lbm_event_queue_attr_create;
  static constexpr auto dup = lbm_event_queue_attr_dup;
  static constexpr auto destroy = lbm_event_queue_attr_delete;
  static constexpr auto setopt = lbm_event_queue_attr_setopt;
  static constexpr auto strSetopt = lbm_event_queue_attr_str_setopt;
  static constexpr auto strGetopt = lbm_event_queue_attr_str_getopt;
  static constexpr auto createFailed = "Failed to create LBM event queue attributes";
  static constexpr auto dupFailed = "Failed to duplicate LBM event queue attributes";
  static constexpr auto destroyFailed = "Failed to delete LBM event queue attributes";
  // "topic" is what operators search for.
  static constexpr auto setFailed = "Failed to set LBM topic attribute";
  static constexpr auto getFailed = "Failed to get LBM event queue attribute";
};

}  // namespace

template <class Handle>
Attributes<Handle>::Attributes() : m_attr(nullptr) {
  ThrowIfFailed(Calls<Handle>::create(&m_attr), Calls<Handle>::createFailed);
}

template <class Handle>
Attributes<Handle>::Attributes(const Attributes& other) : m_attr(nullptr) {
  ThrowIfFailed(Calls<Handle>::dup(&m_attr, other.m_attr), Calls<Handle>::dupFailed);
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
  if (m_attr != nullptr && Failed(Calls<Handle>::destroy(m_attr))) {
    LogLbmError(Calls<Handle>::destroyFailed);
  }
}

template <class Handle>
void Attributes<Handle>::SetString(const char* name, const char* value) {
  ThrowIfFailed(Calls<Handle>::strSetopt(m_attr, name, value), Calls<Handle>::setFailed);
}

template <class Handle>
void Attributes<Handle>::SetBytes(const char* name, const void* value, std::size_t size) {
  ThrowIfFailed(Calls<Handle>::setopt(m_attr, name, value, size), Calls<Handle>::setFailed);
}

template <class Handle>
std::string Attributes<Handle>::GetString(const char* name) const {
  return ReadTextOption(
      [&](char* text, std::size_t* length) { return Calls<Handle>::strGetopt(m_attr, name, text, length); },
      Calls<Handle>::getFailed);
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
