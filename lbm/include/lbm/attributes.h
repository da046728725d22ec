// Creation options. Needed only until the object that they configure has been created.
#pragma once

#include <lbm/lbm.h>

#include <cstddef>
#include <string>
#include <type_traits>

#pragma GCC visibility push(default)

namespace lbm {
namespace details {

// What the four attribute classes share; Handle is the C interface's attribute object, which this owns. Copying
// duplicates the handle; a moved-from object holds null and can only be assigned to or destroyed.
//
// Failures throw LbmError; a failing delete is logged.
// Threads: one at a time.
template <class Handle>
class Attributes {
 public:
  Attributes();
  Attributes(const Attributes& other);
  Attributes(Attributes&& other) noexcept;
  Attributes& operator=(const Attributes& other);
  Attributes& operator=(Attributes&& other) noexcept;
  virtual ~Attributes();

  void SetString(const char* name, const char* value);

  // value has exactly the type that the option is declared with: its bytes are what is set.
  template <class T>
  void Set(const char* name, const T& value) {
    static_assert(std::is_trivially_copyable_v<T>, "option values are handed over as bytes");
    SetBytes(name, &value, sizeof(T));
  }

  std::string GetString(const char* name) const;

  operator Handle*() noexcept { return m_attr; }
  operator const Handle*() const noexcept { return m_attr; }

 private:
  void SetBytes(const char* name, const void* value, std::size_t size);

  Handle* m_attr;
};

// Said once more, because the C interface does not say it of the handles.
extern template class __attribute__((visibility("default"))) Attributes<lbm_context_attr_t>;
extern template class __attribute__((visibility("default"))) Attributes<lbm_src_topic_attr_t>;
extern template class __attribute__((visibility("default"))) Attributes<lbm_rcv_topic_attr_t>;
extern template class __attribute__((visibility("default"))) Attributes<lbm_event_queue_attr_t>;

}  // namespace details

class ContextAttributes : public details::Attributes<lbm_context_attr_t> {};
class SourceTopicAttributes : public details::Attributes<lbm_src_topic_attr_t> {};
class ReceiverTopicAttributes : public details::Attributes<lbm_rcv_topic_attr_t> {};
class EventQueueAttributes : public details::Attributes<lbm_event_queue_attr_t> {};

}  // namespace lbm

#pragma GCC visibility pop
