#include "ps_common/connector/server_instance.h"

namespace ps_ns {

std::string ServerInstance::ToString() const {
  return m_marketName.empty() ? ToIdentifier() : m_marketName + '(' + ToIdentifier() + ')';
}

std::string ServerInstance::ToIdentifier() const {
  return std::to_string(m_marketID) + '.' + std::to_string(m_submarketID) + '.' + std::to_string(m_nodeID) + '.' +
         std::to_string(m_dummy1);
}

}  // namespace ps_ns
