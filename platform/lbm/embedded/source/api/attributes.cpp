#include "api/attributes.h"

#include "api/errors.h"
#include "api/option_calls.h"

using engine::OptionSet;
using engine::Scope;

struct lbm_context_attr_t_stct {
  OptionSet options{Scope::context};
};
struct lbm_src_topic_attr_t_stct {
  OptionSet options{Scope::source};
};
struct lbm_rcv_topic_attr_t_stct {
  OptionSet options{Scope::receiver};
};
struct lbm_event_queue_attr_t_stct {
  OptionSet options{Scope::eventQueue};
};

namespace engine::api {
namespace {

template <class Attributes>
OptionSet optionsOrDefaults(const Attributes* attr) {
  return attr == nullptr ? Attributes{}.options : attr->options;
}

template <class Attributes>
int create(const char* function, Attributes** attr) noexcept {
  return guarded(function, [&] {
    Attributes*& created = required(attr, "attr");
    created = new Attributes;
    return 0;
  });
}

template <class Attributes>
int duplicate(const char* function, Attributes** attr, const Attributes* original) noexcept {
  return guarded(function, [&] {
    Attributes*& created = required(attr, "attr");
    created = new Attributes(required(original, "original"));
    return 0;
  });
}

template <class Attributes>
int destroy(const char* function, Attributes* attr) noexcept {
  return guarded(function, [&] {
    delete &required(attr, "attr");
    return 0;
  });
}

template <class Attributes>
int set(const char* function, Attributes* attr, const char* optname, const void* optval, std::size_t optlen) noexcept {
  return guarded(function, [&] { return setOption(required(attr, "attr").options, optname, optval, optlen); });
}

template <class Attributes>
int get(const char* function, const Attributes* attr, const char* optname, void* optval, std::size_t* optlen) noexcept {
  return guarded(function, [&] { return getOption(required(attr, "attr").options, optname, optval, optlen); });
}

template <class Attributes>
int setText(const char* function, Attributes* attr, const char* optname, const char* optval) noexcept {
  return guarded(function, [&] { return setTextOption(required(attr, "attr").options, optname, optval); });
}

template <class Attributes>
int getText(const char* function, const Attributes* attr, const char* optname, char* optval,
            std::size_t* optlen) noexcept {
  return guarded(function, [&] { return getTextOption(required(attr, "attr").options, optname, optval, optlen); });
}

}  // namespace

OptionSet options(const lbm_context_attr_t* attr) { return optionsOrDefaults(attr); }
OptionSet options(const lbm_src_topic_attr_t* attr) { return optionsOrDefaults(attr); }
OptionSet options(const lbm_rcv_topic_attr_t* attr) { return optionsOrDefaults(attr); }
OptionSet options(const lbm_event_queue_attr_t* attr) { return optionsOrDefaults(attr); }

}  // namespace engine::api

namespace api = engine::api;

int lbm_context_attr_create(lbm_context_attr_t** attr) { return api::create(__func__, attr); }
int lbm_context_attr_dup(lbm_context_attr_t** attr, const lbm_context_attr_t* original) {
  return api::duplicate(__func__, attr, original);
}
int lbm_context_attr_delete(lbm_context_attr_t* attr) { return api::destroy(__func__, attr); }
int lbm_context_attr_setopt(lbm_context_attr_t* attr, const char* optname, const void* optval, size_t optlen) {
  return api::set(__func__, attr, optname, optval, optlen);
}
int lbm_context_attr_getopt(const lbm_context_attr_t* attr, const char* optname, void* optval, size_t* optlen) {
  return api::get(__func__, attr, optname, optval, optlen);
}
int lbm_context_attr_str_setopt(lbm_context_attr_t* attr, const char* optname, const char* optval) {
  return api::setText(__func__, attr, optname, optval);
}
int lbm_context_attr_str_getopt(const lbm_context_attr_t* attr, const char* optname, char* optval, size_t* optlen) {
  return api::getText(__func__, attr, optname, optval, optlen);
}

int lbm_src_topic_attr_create(lbm_src_topic_attr_t** attr) { return api::create(__func__, attr); }
int lbm_src_topic_attr_dup(lbm_src_topic_attr_t** attr, const lbm_src_topic_attr_t* original) {
  return api::duplicate(__func__, attr, original);
}
int lbm_src_topic_attr_delete(lbm_src_topic_attr_t* attr) { return api::destroy(__func__, attr); }
int lbm_src_topic_attr_setopt(lbm_src_topic_attr_t* attr, const char* optname, const void* optval, size_t optlen) {
  return api::set(__func__, attr, optname, optval, optlen);
}
int lbm_src_topic_attr_getopt(const lbm_src_topic_attr_t* attr, const char* optname, void* optval, size_t* optlen) {
  return api::get(__func__, attr, optname, optval, optlen);
}
int lbm_src_topic_attr_str_setopt(lbm_src_topic_attr_t* attr, const char* optname, const char* optval) {
  return api::setText(__func__, attr, optname, optval);
}
int lbm_src_topic_attr_str_getopt(const lbm_src_topic_attr_t* attr, const char* optname, char* optval, size_t* optlen) {
  return api::getText(__func__, attr, optname, optval, optlen);
}

int lbm_rcv_topic_attr_create(lbm_rcv_topic_attr_t** attr) { return api::create(__func__, attr); }
int lbm_rcv_topic_attr_dup(lbm_rcv_topic_attr_t** attr, const lbm_rcv_topic_attr_t* original) {
  return api::duplicate(__func__, attr, original);
}
int lbm_rcv_topic_attr_delete(lbm_rcv_topic_attr_t* attr) { return api::destroy(__func__, attr); }
int lbm_rcv_topic_attr_setopt(lbm_rcv_topic_attr_t* attr, const char* optname, const void* optval, size_t optlen) {
  return api::set(__func__, attr, optname, optval, optlen);
}
int lbm_rcv_topic_attr_getopt(const lbm_rcv_topic_attr_t* attr, const char* optname, void* optval, size_t* optlen) {
  return api::get(__func__, attr, optname, optval, optlen);
}
int lbm_rcv_topic_attr_str_setopt(lbm_rcv_topic_attr_t* attr, const char* optname, const char* optval) {
  return api::setText(__func__, attr, optname, optval);
}
int lbm_rcv_topic_attr_str_getopt(const lbm_rcv_topic_attr_t* attr, const char* optname, char* optval, size_t* optlen) {
  return api::getText(__func__, attr, optname, optval, optlen);
}

int lbm_event_queue_attr_create(lbm_event_queue_attr_t** attr) { return api::create(__func__, attr); }
int lbm_event_queue_attr_dup(lbm_event_queue_attr_t** attr, const lbm_event_queue_attr_t* original) {
  return api::duplicate(__func__, attr, original);
}
int lbm_event_queue_attr_delete(lbm_event_queue_attr_t* attr) { return api::destroy(__func__, attr); }
int lbm_event_queue_attr_setopt(lbm_event_queue_attr_t* attr, const char* optname, const void* optval, size_t optlen) {
  return api::set(__func__, attr, optname, optval, optlen);
}
int lbm_event_queue_attr_getopt(const lbm_event_queue_attr_t* attr, const char* optname, void* optval, size_t* optlen) {
  return api::get(__func__, attr, optname, optval, optlen);
}
int lbm_event_queue_attr_str_setopt(lbm_event_queue_attr_t* attr, const char* optname, const char* optval) {
  return api::setText(__func__, attr, optname, optval);
}
int lbm_event_queue_attr_str_getopt(const lbm_event_queue_attr_t* attr, const char* optname, char* optval,
                                    size_t* optlen) {
  return api::getText(__func__, attr, optname, optval, optlen);
}
