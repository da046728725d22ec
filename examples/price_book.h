// A part of a client that is worth testing: the latest price of each symbol of a server instance.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "feed/price_message.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"

// Threads: the manager's dispatch thread takes the messages; look at the book there.
class PriceBook {
 public:
  PriceBook(ps_ns::LbmClientResourceMgr& manager, const ps_ns::ServerInstance& instance) {
    std::string topic;
    m_prices = manager.CreateClientDataReceiver(
        instance, 0, [this](const lbm::Message& message) { Take(message); }, topic);
  }

  // Nothing for a symbol that never came, and for all of them while there is no server: an old price is worth nothing.
  std::optional<feed::Price> Find(const std::string& symbol) const {
    const auto found = m_book.find(symbol);
    return found == m_book.end() ? std::nullopt : std::optional(found->second);
  }

 private:
  void Take(const lbm::Message& message) {
    if (message.Type() == LBM_MSG_EOS) {
      m_book.clear();
    } else if (const auto update = feed::DecodePriceMessage({message.Data(), message.Length()})) {
      m_book[std::string(update->symbol.View())] = update->price;
    }
  }

  std::map<std::string, feed::Price> m_book;
  ps_ns::ReceiverPtr m_prices;
};
