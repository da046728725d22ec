// The way back from a request to whoever sent it.
#pragma once

#include <lbm/lbm.h>

#include <cstddef>
#include <memory>
#include <span>

#include "transport/transport.h"

namespace engine::core {

class Context;

class Response {
 public:
  Response(std::shared_ptr<Context> context, std::shared_ptr<transport::ReplyPath> path) noexcept
      : m_context(std::move(context)), m_path(std::move(path)) {}

  // Sends one answer; flags as for lbm_send_response. Threads: any. Throws Error when the requester is gone.
  transport::SendResult Send(std::span<const std::byte> payload, int flags) const;

 private:
  std::shared_ptr<Context> m_context;
  std::shared_ptr<transport::ReplyPath> m_path;
};

}  // namespace engine::core

struct lbm_response_t_stct : engine::core::Response {};
