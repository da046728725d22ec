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

#define LBM_ATTRIBUTES(family, name, nameOfOption)                                     \
  template <>                                                                          \
  struct Calls<lbm_##family##_attr_t> {                                                \
    static constexpr auto kCreate = lbm_##family##_attr_create;                        \
    static constexpr auto kDup = lbm_##family##_attr_dup;                              \
    static constexpr auto kDestroy = lbm_##family##_attr_delete;                       \
    static constexpr auto kSetopt = lbm_##family##_attr_setopt;                        \
    static constexpr auto kStrSetopt = lbm_##family##_attr_str_setopt;                 \
    static constexpr auto kStrGetopt = lbm_##family##_attr_str_getopt;                 \
    static constexpr auto kCreateFailed = "Failed to create LBM " name " attributes";  \
    static constexpr auto kDupFailed = "Failed to duplicate LBM " name " attributes";  \
    static constexpr auto kDestroyFailed = "Failed to delete LBM " name " attributes"; \
    static constexpr auto kSetFailed = "Failed to set LBM " nameOfOption " attribute"; \
    static constexpr auto kGetFailed = "Failed to get LBM " name " attribute";         \
  }

LBM_ATTRIBUTES(context, "context", "context");
LBM_ATTRIBUTES(src_topic, "source topic", "source topic");
LBM_ATTRIBUTES(rcv_topic, "receiver topic", "receiver topic");
// "topic" is what operators search for.
LBM_ATTRIBUTES(event_queue, "event queue", "topic");

#undef LBM_ATTRIBUTES

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
