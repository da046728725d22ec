// Makes the system refuse calls.
#pragma once

#include <cstdint>

namespace engine::transport::host {

enum class Call : std::uint8_t { kMemfdCreate, kPosixFallocate, kWatch, kMkdirat, kBind };

// While it lives, the call fails with the error on every thread. One at a time for each call.
class Refusal {
 public:
  Refusal(Call call, int error);
  ~Refusal();
  Refusal(const Refusal&) = delete;
  Refusal& operator=(const Refusal&) = delete;

 private:
  const Call m_call;
};

}  // namespace engine::transport::host
