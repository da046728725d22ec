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

void Mailbox::Post(Mail mail) noexcept {
  bool wake = mail.kind == Mail::Kind::kCommand;
  {
    const std::lock_guard lock(m_mutex);
    if (!TellsOfSource(mail)) {
      auto& waiting = m_waiting[static_cast<std::size_t>(mail.kind)];
      if (waiting == kMaxWaiting || IsTooLarge(mail.message)) {
        ++m_dropped;
        return;
      }
      if (++waiting == kMaxWaiting / 2) {
        wake = true;
      }
    }
    m_mail.push_back(std::move(mail));
  }
  if (wake) {
    m_wake();
  }
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
