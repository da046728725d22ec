#include "mailbox.h"

#include <utility>

#include "feed/json_message.h"

namespace price_client {
namespace {

bool TellsOfSource(const Mail& mail) {
  if (mail.kind == Mail::Kind::kPriceSourceCame || mail.kind == Mail::Kind::kPriceSourceWent) {
    return true;
  }
  return mail.message.Type() == LBM_MSG_BOS || mail.message.Type() == LBM_MSG_EOS;
}

bool IsTooLarge(const lbm::Message& message) {
  // The length of a loss is a count.
  return message.Type() != LBM_MSG_UNRECOVERABLE_LOSS_BURST && message.Length() > feed::kMaxJsonMessageSize;
}

}  // namespace

void Mailbox::HandOver() noexcept {
  if (m_posted.empty()) {
    return;
  }
  bool isUrgent = false;
  {
    const std::lock_guard lock(m_mutex);
    for (auto& mail : m_posted) {
      isUrgent |= Keep(mail);
    }
  }
  m_posted.clear();
  if (isUrgent) {
    m_wake();
  }
}

// Returns whether it must not wait.
bool Mailbox::Keep(Mail& mail) {
  bool isUrgent = mail.kind == Mail::Kind::kCommand;
  if (!TellsOfSource(mail)) {
    auto& waiting = m_waiting[static_cast<std::size_t>(mail.kind)];
    if (waiting == kMaxWaiting || IsTooLarge(mail.message)) {
      ++m_dropped;
      return false;
    }
    isUrgent |= ++waiting == kMaxWaiting / 2;
  }
  m_mail.push_back(std::move(mail));
  return isUrgent;
}

std::vector<Mail> Mailbox::Collect() {
  const std::lock_guard lock(m_mutex);
  m_waiting.fill(0);
  return std::exchange(m_mail, {});
}

std::uint64_t Mailbox::Dropped() const {
  const std::lock_guard lock(m_mutex);
  return m_dropped;
}

}  // namespace price_client
