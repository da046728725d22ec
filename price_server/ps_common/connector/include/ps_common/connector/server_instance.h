// The key of one price-server instance.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <tuple>
#include <utility>

#pragma GCC visibility push(default)

namespace ps_ns {

using MarketID_t = std::int16_t;
using SubmarketID_t = std::int16_t;
using NodeID_t = std::int16_t;

// One price-server instance: node m_nodeID of submarket m_submarketID of market m_marketID. The four 16-bit fields are
// its identity; the market name is for display only and takes no part in hashing, comparing or topic names.
struct ServerInstance {
  MarketID_t m_marketID = -1;
  SubmarketID_t m_submarketID = -1;
  NodeID_t m_nodeID = -1;
  std::uint16_t m_dummy1 = 0;  // part of the identity: keys that are to match must agree in it
  std::string m_marketName;

  // The identity as one word: the fields in declared order, the first in the lowest bits, without sign extension.
  std::uint64_t GetKey() const noexcept {
    const auto bits = [](auto field) { return std::uint64_t{static_cast<std::uint16_t>(field)}; };
    return bits(m_marketID) | bits(m_submarketID) << 16 | bits(m_nodeID) << 32 | bits(m_dummy1) << 48;
  }

  // A submarket number means something only within its market, so a submarket is named by both.
  std::pair<MarketID_t, SubmarketID_t> GetSubmarket() const noexcept { return {m_marketID, m_submarketID}; }

  // For people: the market name, when there is one, and the identifier, as in "CME(1.2.3.0)".
  std::string ToString() const;

  // For machines: the four numbers, as in "1.2.3.0". Equal instances and no others have equal identifiers.
  std::string ToIdentifier() const;

  // Whether the instance can exist: market, submarket and node are numbered from 0. A default-made one is not valid.
  bool IsValid() const noexcept { return m_marketID >= 0 && m_submarketID >= 0 && m_nodeID >= 0; }

  // The key itself, unmixed. It is not noexcept so that the standard library's tables keep each node's hash, and
  // compare it before they compare keys.
  struct Hasher {
    std::size_t operator()(const ServerInstance& serverInstance) const { return serverInstance.GetKey(); }
  };

  friend bool operator==(const ServerInstance& left, const ServerInstance& right) noexcept {
    return left.GetKey() == right.GetKey();
  }
  friend bool operator!=(const ServerInstance& left, const ServerInstance& right) noexcept { return !(left == right); }

  // By market, submarket, node and filler, each as a number.
  friend bool operator<(const ServerInstance& left, const ServerInstance& right) noexcept {
    return std::tie(left.m_marketID, left.m_submarketID, left.m_nodeID, left.m_dummy1) <
           std::tie(right.m_marketID, right.m_submarketID, right.m_nodeID, right.m_dummy1);
  }
};

// Back to back from the start, so that the key is one load.
static_assert(offsetof(ServerInstance, m_marketID) == 0 && offsetof(ServerInstance, m_submarketID) == 2 &&
              offsetof(ServerInstance, m_nodeID) == 4 && offsetof(ServerInstance, m_dummy1) == 6 &&
              offsetof(ServerInstance, m_marketName) == 8);
static_assert(sizeof(std::size_t) == sizeof(std::uint64_t), "the hash is the whole key");

}  // namespace ps_ns

#pragma GCC visibility pop
