#include <algorithm>
#include <cstring>
#include <memory>
#include <sstream>

#include "api/attributes.h"
#include "api/endpoints.h"
#include "api/errors.h"
#include "api/option_calls.h"
#include "api/transports.h"

using engine::Error;
using engine::OptionSet;
using engine::api::Guarded;
using engine::api::Required;

namespace {

engine::core::Context& ContextOf(lbm_context_t* ctx) { return *Required(ctx, "ctx").context; }

std::shared_ptr<engine::ContextStatistics> StatisticsFor(const OptionSet& options, const lbm_context_t* handle) {
  std::ostringstream address;
  address << handle;
  return std::make_shared<engine::ContextStatistics>(
      engine::ContextStatistics::Labels{.context = options.Get(engine::option::kContextName),
                                        .handle = address.str(),
                                        .domain = options.Get(engine::option::kDomain),
                                        .transport = options.GetText("transport")});
}

}  // namespace

int lbm_context_create(lbm_context_t** ctx, const lbm_context_attr_t* attr, lbm_daemon_event_cb_proc, void*) {
  return Guarded(__func__, [&] {
    Required(ctx, "ctx");
    OptionSet options = engine::api::CreationOptions(attr);
    const auto handle = std::make_shared<lbm_context_t>();
    const auto statistics = StatisticsFor(options, handle.get());
    auto transport = engine::api::JoinDomain(options, statistics);
    handle->context = engine::core::Context::Create(std::move(options), std::move(transport), statistics, handle.get());
    handle->self = handle;
    *ctx = handle.get();
    return 0;
  });
}

int lbm_context_delete(lbm_context_t* ctx) {
  return Guarded(__func__, [&] {
    const auto handle = std::move(Required(ctx, "ctx").self);
    handle->context->Remove(handle);
    return 0;
  });
}

int lbm_context_process_events(lbm_context_t* ctx, lbm_ulong_t msec) {
  return Guarded(__func__, [&] {
    const auto context = Required(ctx, "ctx").context;  // a callback may delete the context
    context->ProcessEvents(msec);
    return 0;
  });
}

int lbm_context_unblock(lbm_context_t* ctx) {
  return Guarded(__func__, [&] {
    ContextOf(ctx).Unblock();
    return 0;
  });
}

int lbm_context_setopt(lbm_context_t* ctx, const char* optname, const void* optval, size_t optlen) {
  return Guarded(__func__, [&] {
    const int result = engine::api::SetOption(ContextOf(ctx).Options(), optname, optval, optlen);
    ContextOf(ctx).ShowOptions();
    return result;
  });
}

int lbm_context_getopt(lbm_context_t* ctx, const char* optname, void* optval, size_t* optlen) {
  return Guarded(__func__, [&] { return engine::api::GetOption(ContextOf(ctx).Options(), optname, optval, optlen); });
}

int lbm_context_str_setopt(lbm_context_t* ctx, const char* optname, const char* optval) {
  return Guarded(__func__, [&] {
    const int result = engine::api::SetTextOption(ContextOf(ctx).Options(), optname, optval);
    ContextOf(ctx).ShowOptions();
    return result;
  });
}

int lbm_context_str_getopt(lbm_context_t* ctx, const char* optname, char* optval, size_t* optlen) {
  return Guarded(__func__,
                 [&] { return engine::api::GetTextOption(ContextOf(ctx).Options(), optname, optval, optlen); });
}

int lbm_context_str_getopt_all(lbm_context_t* ctx, lbm_option_text_t* opts, size_t* count) {
  return Guarded(__func__, [&] {
    const auto texts = ContextOf(ctx).Options().Texts();
    const std::size_t room = std::exchange(Required(count, "count"), texts.size());
    if (room < texts.size()) {
      throw Error(LBM_EINVAL, "there is room for " + std::to_string(room) + " options and " +
                                  std::to_string(texts.size()) + " are needed");
    }
    engine::api::RequireNotNull(opts, "opts");
    for (const auto& [name, value] : texts) {
      lbm_option_text_t& text = *opts++ = {};
      name.copy(text.name, sizeof(text.name) - 1);
      value.copy(text.value, sizeof(text.value) - 1);
    }
    return 0;
  });
}

int lbm_register_fd(lbm_context_t* ctx, int fd, lbm_fd_cb_proc proc, void* clientd, lbm_event_queue_t* evq,
                    lbm_ulong_t ev) {
  return Guarded(__func__, [&] {
    engine::api::RequireNotNull(proc, "proc");
    ContextOf(ctx).RegisterDescriptor(fd, ev, proc, clientd, engine::api::QueueOf(evq));
    return 0;
  });
}

int lbm_cancel_fd(lbm_context_t* ctx, int fd, lbm_ulong_t ev) {
  return Guarded(__func__, [&] {
    ContextOf(ctx).CancelDescriptor(fd, ev);
    return 0;
  });
}

int lbm_cancel_fd_ex(lbm_context_t* ctx, int fd, lbm_ulong_t ev, const lbm_event_queue_cancel_cb_info_t* info) {
  return Guarded(__func__, [&] {
    const lbm_event_queue_cancel_cb_info_t& notice = Required(info, "info");
    engine::api::RequireNotNull(notice.cancel_cb, "info->cancel_cb");
    ContextOf(ctx).CancelDescriptorWithNotice(fd, ev, notice.cancel_cb, notice.clientd,
                                              engine::api::QueueOf(notice.event_queue));
    return 0;
  });
}
