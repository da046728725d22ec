// What the tests share that go on for as long as they are told: settings, what receivers may hear, and what is left.
#pragma once

#include <gtest/gtest.h>
#include <lbm/lbm.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "../options/short_memory.h"
#include "engine_testing/holdings.h"

namespace endurance {

// What the variable of the environment says, or else the default.
inline long Setting(const char* name, long fallback) {
  const char* const text = std::getenv(name);
  return text != nullptr ? std::strtol(text, nullptr, 10) : fallback;
}

// Another one each time, unless LBM_SEED says which; printed, so that a failure can be tried again.
inline unsigned Seed() {
  const auto seed = static_cast<unsigned>(Setting("LBM_SEED", static_cast<long>(std::random_device{}())));
  std::printf("LBM_SEED=%u\n", seed);
  std::fflush(stdout);
  return seed;
}

// Small, so that it is full all the time.
inline constexpr std::size_t kFloodRingBytes = std::size_t{64} << 10;

// The number and so many bytes made from it, now and then more than fit in one frame of the ring or in all of it.
inline std::string FloodMessage(std::uint32_t number) {
  std::size_t size = sizeof(number) + number * 7919U % 3000U;
  if (number % 50 == 0) {
    size += number % 100 == 0 ? kFloodRingBytes / 4 : kFloodRingBytes * 2;
  }
  std::string content(size, static_cast<char>(number * 31));
  std::memcpy(content.data(), &number, sizeof(number));
  return content;
}

// Follows the sources that a receiver hears, each of which counts its messages from 0 and sends a FloodMessage of the
// count. Threads: one at a time.
class Streams {
 public:
  // Returns what is wrong: a gap that was not told, a message out of order, twice or damaged; empty when nothing is.
  std::string Take(const lbm_msg_t& message) {
    const std::string name = message.source;
    const std::uint32_t sequence = message.sequence_number;
    const auto place = m_next.find(name);
    if (message.type == LBM_MSG_BOS) {
      ++sessions;
      return m_next.emplace(name, sequence).second ? "" : name + " begins twice";
    }
    if (place == m_next.end()) {
      return "type " + std::to_string(message.type) + " of " + name + ", which has not begun";
    }
    if (message.type == LBM_MSG_EOS) {
      m_next.erase(place);
      return "";
    }
    if (sequence != place->second) {
      return name + " comes with " + std::to_string(sequence) + " instead of " + std::to_string(place->second);
    }
    const bool burst = message.type == LBM_MSG_UNRECOVERABLE_LOSS_BURST;
    const std::uint32_t count = burst ? static_cast<std::uint32_t>(message.len) : 1;
    place->second += count;
    if (burst || message.type == LBM_MSG_UNRECOVERABLE_LOSS) {
      lost += count;
      return "";
    }
    ++messages;
    return FloodMessage(sequence) == std::string_view(message.data, message.len) ? ""
                                                                                 : name + " sends what it did not say";
  }

  // Of which the end was not heard.
  std::size_t Open() const { return m_next.size(); }

  std::uint64_t messages = 0;
  std::uint64_t lost = 0;
  std::uint64_t sessions = 0;

 private:
  std::map<std::string, std::uint32_t> m_next;  // sequence number, by source
};

// What this process holds.
struct Belongings {
  engine::transport::host::Holdings holdings;
  std::size_t threads = 0;
  bool operator==(const Belongings&) const = default;

  static Belongings Now() {
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return {engine::transport::host::Holdings::Now(),
            static_cast<std::size_t>(std::distance(begin(threads), end(threads)))};
  }
  friend std::ostream& operator<<(std::ostream& out, const Belongings& held) {
    return out << held.holdings.descriptors << " descriptors, " << held.holdings.mappings << " mappings, "
               << held.threads << " threads";
  }
};

inline std::vector<std::string> FilesBelow(const std::filesystem::path& directory) {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    if (!entry.is_directory()) {
      files.push_back(entry.path());
    }
  }
  return files;
}

}  // namespace endurance
