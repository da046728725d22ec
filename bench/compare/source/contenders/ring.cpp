// The bare limit: one ring in shared memory for each receiver, one writer, one reader, length-prefixed frames, no
// checks, no topics, nothing to wait on.
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>

#include "contender.h"
#include "control.h"
#include "zq/posix/descriptor.h"
#include "zq/posix/error.h"

namespace compare {

namespace {

constexpr std::size_t kRingBytes = 1 << 20;
constexpr std::size_t kPrefix = sizeof(std::uint64_t);
constexpr std::uint64_t kWrap = ~std::uint64_t{0};

constexpr std::uint64_t FrameBytes(std::size_t length) { return (kPrefix + length + kPrefix - 1) / kPrefix * kPrefix; }

// Counts of bytes since the beginning; the place in data is the remainder. Zero bytes are an empty ring.
struct Memory {
  alignas(kCacheLine) std::atomic<std::uint64_t> written;
  alignas(kCacheLine) std::atomic<std::uint64_t> read;
  alignas(kCacheLine) char data[kRingBytes];
};

class Ring {
 public:
  explicit Ring(const std::filesystem::path& file) {
    const zq::posix::Descriptor opened =
        zq::posix::Checked(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600), file.c_str());
    if (::ftruncate(opened.Get(), sizeof(Memory)) != 0) {
      zq::posix::ThrowErrno(file);
    }
    void* memory = ::mmap(nullptr, sizeof(Memory), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, opened.Get(), 0);
    if (memory == MAP_FAILED) {
      zq::posix::ThrowErrno(file);
    }
    m_memory = static_cast<Memory*>(memory);
  }
  ~Ring() { ::munmap(m_memory, sizeof(Memory)); }
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;

  void Write(const char* data, std::uint64_t length) {
    const std::uint64_t bytes = FrameBytes(length);
    const std::uint64_t toEnd = kRingBytes - m_position % kRingBytes;
    if (toEnd < bytes) {
      WaitForRoom(toEnd + bytes);
      std::memcpy(At(m_position), &kWrap, kPrefix);
      m_position += toEnd;
    } else {
      WaitForRoom(bytes);
    }
    std::memcpy(At(m_position), &length, kPrefix);
    std::memcpy(At(m_position) + kPrefix, data, length);
    m_position += bytes;
    m_memory->written.store(m_position, std::memory_order_release);
  }

  // Whether there was anything.
  bool ReadInto(Sink& sink) {
    const std::uint64_t end = m_memory->written.load(std::memory_order_acquire);
    if (m_position == end) {
      return false;
    }
    while (m_position != end) {
      std::uint64_t length = 0;
      std::memcpy(&length, At(m_position), kPrefix);
      if (length == kWrap) {
        m_position += kRingBytes - m_position % kRingBytes;
        continue;
      }
      sink.Take(At(m_position) + kPrefix, length);
      m_position += FrameBytes(length);
      m_memory->read.store(m_position, std::memory_order_release);
    }
    return true;
  }

 private:
  char* At(std::uint64_t position) const { return m_memory->data + position % kRingBytes; }

  void WaitForRoom(std::uint64_t bytes) {
    while (m_position + bytes - m_other > kRingBytes) {
      m_other = m_memory->read.load(std::memory_order_acquire);
      if (m_position + bytes - m_other > kRingBytes) {
        ::sched_yield();
      }
    }
  }

  Memory* m_memory;
  std::uint64_t m_position = 0;  // the writer's or the reader's own
  std::uint64_t m_other = 0;     // the writer's last look at the reader's
};

class RingNode : public Node {
 public:
  RingNode(const std::filesystem::path& directory, const NodeSetup& setup) : m_sink(setup.sink) {
    for (const std::string& subscriber : setup.subscribers) {
      m_out.push_back(std::make_unique<Ring>(directory / (setup.name + "-" + subscriber)));
    }
    for (const std::string& publisher : setup.publishers) {
      m_in.push_back(std::make_unique<Ring>(directory / (publisher + "-" + setup.name)));
    }
  }

  void Send(std::size_t, const char* data, std::size_t length) override {
    for (const auto& ring : m_out) {
      ring->Write(data, length);
    }
  }

  void Poll(int timeoutMs) override {
    bool any = false;
    for (const auto& ring : m_in) {
      any = ring->ReadInto(*m_sink) || any;
    }
    if (!any && timeoutMs > 0) {
      ::sched_yield();
    }
  }

 private:
  Sink* const m_sink;
  std::vector<std::unique_ptr<Ring>> m_out;
  std::vector<std::unique_ptr<Ring>> m_in;
};

}  // namespace

Contender MakeContender(const std::filesystem::path& directory) {
  return {.version = "-",
          .transport = "1 MiB of shared memory for each receiver",
          .pacing = "the writer spins until there is room",
          .pinned = true,
          .makeNode = [directory](const NodeSetup& setup) { return std::make_unique<RingNode>(directory, setup); }};
}

}  // namespace compare
