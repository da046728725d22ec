#include "api/attributes.h"

#include "api/errors.h"
#include "api/option_calls.h"

using engine::OptionSet;
using engine::Scope;

struct lbm_context_attr_t_stct {
  OptionSet options{Scope::kContext};
};
struct lbm_src_topic_attr_t_stct {
  OptionSet options{Scope::kSource};
};
struct lbm_rcv_topic_attr_t_stct {
  OptionSet options{Scope::kReceiver};
};
struct lbm_event_queue_attr_t_stct {
  OptionSet options{Scope::kEventQueue};
};

namespace engine::api {
namespace {

template <class Attributes>
OptionSet OptionsOrDefaults(const Attributes* attr) {
  return attr == nullptr ? Attributes{}.options : attr->options;
}

template <class Attributes>
int Create(const char* function, Attributes** attr) noexcept {
  return Guarded(function, [&] {
    Attributes*& created = Required(attr, "attr");
    created = new Attributes;
    return 0;
  });
}

template <class Attributes>
int Duplicate(const char* function, Attributes** attr, const Attributes* original) noexcept {
  return Guarded(function, [&] {
    Attributes*& created = Required(attr, "attr");
    created = new Attributes(Required(original, "original"));
    return 0;
  });
}

template <class Attributes>
int Destroy(const char* function, Attributes* attr) noexcept {
  return Guarded(function, [&] {
    delete &Required(attr, "attr");
    return 0;
  });
}

template <class Attributes>
int Set(const char* function, Attributes* attr, const char* optname, const void* optval, std::size_t optlen) noexcept {
  return Guarded(function, [&] { return SetOption(Required(attr, "attr").options, optname, optval, optlen); });
}

template <class Attributes>
int Get(const char* function, const Attributes* attr, const char* optname, void* optval, std::size_t* optlen) noexcept {
  return Guarded(function, [&] { return GetOption(Required(attr, "attr").options, optname, optval, optlen); });
}

template <class Attributes>
int SetText(const char* function, Attributes* attr, const char* optname, const char* optval) noexcept {
  return Guarded(function, [&] { return SetTextOption(Required(attr, "attr").options, optname, optval); });
}

template <class Attributes>
int GetText(const char* function, const Attributes* attr, const char* optname, char* optval,
            std::size_t* optlen) noexcept {
  return Guarded(function, [&] { return GetTextOption(Required(attr, "attr").options, optname, optval, optlen); });
}

}  // namespace

OptionSet CreationOptions(const lbm_context_attr_t* attr) { return OptionsOrDefaults(attr); }
OptionSet CreationOptions(const lbm_src_topic_attr_t* attr) { return OptionsOrDefaults(attr); }
OptionSet CreationOptions(const lbm_rcv_topic_attr_t* attr) { return OptionsOrDefaults(attr); }
OptionSet CreationOptions(const lbm_event_queue_attr_t* attr) { return OptionsOrDefaults(attr); }

}  // namespace engine::api

namespace api = engine::api;

int lbm_context_attr_create(lbm_context_attr_t** attr) { return api::Create(__func__, attr); }
int lbm_context_attr_dup(lbm_context_attr_t** attr, const lbm_context_attr_t* original) {
  return api::Duplicate(__func__, attr, original);
}
int lbm_context_attr_delete(lbm_context_attr_t* attr) { return api::Destroy(__func__, attr); }
int lbm_context_attr_setopt(lbm_context_attr_t* attr, const char* optname, const void* optval, size_t optlen) {
  return api::Set(__func__, attr, optname, optval, optlen);
}
int lbm_context_attr_getopt(const lbm_context_attr_t* attr, const char* optname, void* optval, size_t* optlen) {
  return api::Get(__func__, attr, optname, optval, optlen);
}
int lbm_context_attr_str_setopt(lbm_context_attr_t* attr, const char* optname, const char* optval) {
  return api::SetText(__func__, attr, optname, optval);
}
int lbm_context_attr_str_getopt(const lbm_context_attr_t* attr, const char* optname, char* optval, size_t* optlen) {
  return api::GetText(__func__, attr, optname, optval, optlen);
}

int lbm_src_topic_attr_create(lbm_src_topic_attr_t** attr) { return api::Create(__func__, attr); }
int lbm_src_topic_attr_dup(lbm_src_topic_attr_t** attr, const lbm_src_topic_attr_t* original) {
  return api::Duplicate(__func__, attr, original);
}
int lbm_src_topic_attr_delete(lbm_src_topic_attr_t* attr) { return api::Destroy(__func__, attr); }
int lbm_src_topic_attr_setopt(lbm_src_topic_attr_t* attr, const char* optname, const void* optval, size_t optlen) {
  return api::Set(__func__, attr, optname, optval, optlen);
}
int lbm_src_topic_attr_getopt(const lbm_src_topic_attr_t* attr, const char* optname, void* optval, size_t* optlen) {
  return api::Get(__func__, attr, optname, optval, optlen);
}
int lbm_src_topic_attr_str_setopt(lbm_src_topic_attr_t* attr, const char* optname, const char* optval) {
  return api::SetText(__func__, attr, optname, optval);
}
int lbm_src_topic_attr_str_getopt(const lbm_src_topic_attr_t* attr, const char* optname, char* optval, size_t* optlen) {
  return api::GetText(__func__, attr, optname, optval, optlen);
}

int lbm_rcv_topic_attr_create(lbm_rcv_topic_attr_t** attr) { return api::Create(__func__, attr); }
int lbm_rcv_topic_attr_dup(lbm_rcv_topic_attr_t** attr, const lbm_rcv_topic_attr_t* original) {
  return api::Duplicate(__func__, attr, original);
}
int lbm_rcv_topic_attr_delete(lbm_rcv_topic_attr_t* attr) { return api::Destroy(__func__, attr); }
int lbm_rcv_topic_attr_setopt(lbm_rcv_topic_attr_t* attr, const char* optname, const void* optval, size_t optlen) {
  return api::Set(__func__, attr, optname, optval, optlen);
}
int lbm_rcv_topic_attr_getopt(const lbm_rcv_topic_attr_t* attr, const char* optname, void* optval, size_t* optlen) {
  return api::Get(__func__, attr, optname, optval, optlen);
}
int lbm_rcv_topic_attr_str_setopt(lbm_rcv_topic_attr_t* attr, const char* optname, const char* optval) {
  return api::SetText(__func__, attr, optname, optval);
}
int lbm_rcv_topic_attr_str_getopt(const lbm_rcv_topic_attr_t* attr, const char* optname, char* optval, size_t* optlen) {
  return api::GetText(__func__, attr, optname, optval, optlen);
}

int lbm_event_queue_attr_create(lbm_event_queue_attr_t** attr) { return api::Create(__func__, attr); }
int lbm_event_queue_attr_dup(lbm_event_queue_attr_t** attr, const lbm_event_queue_attr_t* original) {
  return api::Duplicate(__func__, attr, original);
}
int lbm_event_queue_attr_delete(lbm_event_queue_attr_t* attr) { return api::Destroy(__func__, attr); }
int lbm_event_queue_attr_setopt(lbm_event_queue_attr_t* attr, const char* optname, const void* optval, size_t optlen) {
  return api::Set(__func__, attr, optname, optval, optlen);
}
int lbm_event_queue_attr_getopt(const lbm_event_queue_attr_t* attr, const char* optname, void* optval, size_t* optlen) {
  return api::Get(__func__, attr, optname, optval, optlen);
}
int lbm_event_queue_attr_str_setopt(lbm_event_queue_attr_t* attr, const char* optname, const char* optval) {
  return api::SetText(__func__, attr, optname, optval);
}
int lbm_event_queue_attr_str_getopt(const lbm_event_queue_attr_t* attr, const char* optname, char* optval,
                                    size_t* optlen) {
  return api::GetText(__func__, attr, optname, optval, optlen);
}
