// The way back from a request to whoever sent it.
#pragma once

#include <lbm/lbm.h>
#include <sys/uio.h>

#include <memory>
#include <span>
#include <utility>

#include "core/membership.h"
#include "system/process_bound.h"
#include "transport/transport.h"

namespace engine::core {

class Response {
 public:
  Response(std::shared_ptr<Membership> membership, std::shared_ptr<transport::ReplyPath> path) noexcept
      : m_membership(std::move(membership)), m_path(std::move(path)) {}

  // Sends one answer. flags: as for lbm_send_response; see Membership::Respond. Threads: any. Throws Error when the
  // requester is gone or the context is deleted.
  transport::SendResult Send(const iovec& payload, int flags) const;

 private:
  std::shared_ptr<Membership> m_membership;
  std::shared_ptr<transport::ReplyPath> m_path;
};

}  // namespace engine::core

struct lbm_response_t_stct : engine::core::Response, engine::ProcessBound {};
