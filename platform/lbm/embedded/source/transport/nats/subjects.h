// The subjects on which contexts of a domain meet.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace engine::transport::nats {

// Names of subjects: the prefix, the domain and what follows here. A topic's dots stay levels; of its other characters
// all but letters, digits, '-' and '_' are written as %XX, and an empty level as %, so that every topic has a subject
// of its own, and an operator's permissions can name topics with wildcards.
class Subjects {
 public:
  Subjects(std::string_view prefix, std::string_view domain);

  // Announcements of sources of the topic, and of all topics.
  std::string Source(std::string_view topic) const { return m_base + "source." + Levels(topic); }
  std::string AllSources() const { return m_base + "source.>"; }

  // Questions for sources of the topic, and of all topics.
  std::string Want(std::string_view topic) const { return m_base + "want." + Levels(topic); }
  std::string WantAll() const { return m_base + "want-all"; }

  // What a source publishes.
  std::string Data(std::string_view topic, std::uint64_t instance, std::uint32_t source) const;

  // What is for one context only.
  std::string Inbox(std::uint64_t instance) const;

  // A context's signs of life.
  std::string Alive(std::uint64_t instance) const;

 private:
  static std::string Levels(std::string_view topic);
  static std::string Level(std::string_view text);

  std::string m_base;
};

// Servers limit the line that names a subject.
inline constexpr std::size_t kSubjectMax = 3'500;

}  // namespace engine::transport::nats
