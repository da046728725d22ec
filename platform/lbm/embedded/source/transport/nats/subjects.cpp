#include "transport/nats/subjects.h"

#include "transport/instance.h"

namespace engine::transport::nats {

namespace {

bool StandsAsItIs(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

}  // namespace

Subjects::Subjects(std::string_view prefix, std::string_view domain)
    : m_base(Levels(prefix) + '.' + Level(domain) + '.') {}

std::string Subjects::Data(std::string_view topic, std::uint64_t instance, std::uint32_t source) const {
  return m_base + "data." + Levels(topic) + '.' + InstanceText(instance) + '-' + std::to_string(source);
}

std::string Subjects::Inbox(std::uint64_t instance) const { return m_base + "inbox." + InstanceText(instance); }

std::string Subjects::Alive(std::uint64_t instance) const { return m_base + "alive." + InstanceText(instance); }

std::string Subjects::Levels(std::string_view topic) {
  std::string levels;
  for (;;) {
    const std::size_t dot = topic.find('.');
    levels += Level(topic.substr(0, dot));
    if (dot == std::string_view::npos) {
      return levels;
    }
    levels += '.';
    topic.remove_prefix(dot + 1);
  }
}

std::string Subjects::Level(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  if (text.empty()) {
    return "%";
  }
  std::string level;
  for (const char c : text) {
    if (StandsAsItIs(c)) {
      level += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      level += '%';
      level += kDigits[byte >> 4];
      level += kDigits[byte & 15];
    }
  }
  return level;
}

}  // namespace engine::transport::nats
