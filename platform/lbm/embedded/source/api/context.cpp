#include <algorithm>
#include <cstring>
#include <memory>

#include "api/attributes.h"
#include "api/endpoints.h"
#include "api/errors.h"
#include "api/option_calls.h"
#include "core/context.h"
#include "core/notice.h"
#include "transport/host/host_transport.h"

using engine::Error;
using engine::OptionSet;
using engine::api::guarded;
using engine::api::required;
namespace option = engine::option;

namespace {

// The one place that chooses how a context's messages travel.
std::unique_ptr<engine::transport::Transport> join(OptionSet& options) {
  const auto runtimeDirectory = engine::transport::host::runtimeDirectory();
  options.provide(option::domainDirectory, runtimeDirectory + '/' + options.get(option::domain));
  return engine::transport::host::joinHostDomain({.runtimeDirectory = runtimeDirectory,
                                                  .domain = options.get(option::domain),
                                                  .contextName = options.get(option::contextName),
                                                  .ringBytes = options.get(option::transportRingSize),
                                                  .notice = engine::notice});
}

engine::core::Context& contextOf(lbm_context_t* ctx) { return *required(ctx, "ctx").context; }

}  // namespace

int lbm_context_create(lbm_context_t** ctx, const lbm_context_attr_t* attr, lbm_daemon_event_cb_proc, void*) {
  return guarded(__func__, [&] {
    required(ctx, "ctx");
    OptionSet options = engine::api::options(attr);
    auto handle = std::make_unique<lbm_context_t>();
    auto transport = join(options);
    handle->context = engine::core::Context::create(std::move(options), std::move(transport), handle.get());
    *ctx = handle.release();
    return 0;
  });
}

int lbm_context_delete(lbm_context_t* ctx) {
  return guarded(__func__, [&] {
    const std::shared_ptr<lbm_context_t> handle(&required(ctx, "ctx"));
    handle->context->remove(handle);
    return 0;
  });
}

int lbm_context_process_events(lbm_context_t* ctx, lbm_ulong_t msec) {
  return guarded(__func__, [&] {
    const auto context = required(ctx, "ctx").context;  // a callback may delete the context
    context->processEvents(msec);
    return 0;
  });
}

int lbm_context_unblock(lbm_context_t* ctx) {
  return guarded(__func__, [&] {
    contextOf(ctx).unblock();
    return 0;
  });
}

int lbm_context_setopt(lbm_context_t* ctx, const char* optname, const void* optval, size_t optlen) {
  return guarded(__func__, [&] { return engine::api::setOption(contextOf(ctx).options(), optname, optval, optlen); });
}

int lbm_context_getopt(lbm_context_t* ctx, const char* optname, void* optval, size_t* optlen) {
  return guarded(__func__, [&] { return engine::api::getOption(contextOf(ctx).options(), optname, optval, optlen); });
}

int lbm_context_str_setopt(lbm_context_t* ctx, const char* optname, const char* optval) {
  return guarded(__func__, [&] { return engine::api::setTextOption(contextOf(ctx).options(), optname, optval); });
}

int lbm_context_str_getopt(lbm_context_t* ctx, const char* optname, char* optval, size_t* optlen) {
  return guarded(__func__,
                 [&] { return engine::api::getTextOption(contextOf(ctx).options(), optname, optval, optlen); });
}

int lbm_context_str_getopt_all(lbm_context_t* ctx, lbm_option_text_t* opts, size_t* count) {
  return guarded(__func__, [&] {
    const auto texts = contextOf(ctx).options().texts();
    const std::size_t room = std::exchange(required(count, "count"), texts.size());
    if (room < texts.size()) {
      throw Error(LBM_EINVAL, "there is room for " + std::to_string(room) + " options and " +
                                  std::to_string(texts.size()) + " are needed");
    }
    engine::api::requireNotNull(opts, "opts");
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
  return guarded(__func__, [&] {
    engine::api::requireNotNull(proc, "proc");
    contextOf(ctx).registerDescriptor(fd, ev, proc, clientd, engine::api::queueOf(evq));
    return 0;
  });
}

int lbm_cancel_fd(lbm_context_t* ctx, int fd, lbm_ulong_t ev) {
  return guarded(__func__, [&] {
    contextOf(ctx).cancelDescriptor(fd, ev);
    return 0;
  });
}

int lbm_cancel_fd_ex(lbm_context_t* ctx, int fd, lbm_ulong_t ev, const lbm_event_queue_cancel_cb_info_t* info) {
  return guarded(__func__, [&] {
    const lbm_event_queue_cancel_cb_info_t& notice = required(info, "info");
    engine::api::requireNotNull(notice.cancel_cb, "info->cancel_cb");
    contextOf(ctx).cancelDescriptorWithNotice(fd, ev, notice.cancel_cb, notice.clientd,
                                              engine::api::queueOf(notice.event_queue));
    return 0;
  });
}
