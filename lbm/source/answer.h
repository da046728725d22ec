// The sending of a response, as Response::SendWithRetries has it.
#pragma once

#include <lbm/lbm.h>

#include <cstdint>
#include <string>

namespace lbm::details {

enum class Answer : std::uint8_t {
  kSent,
  kLetGo,  // it would have blocked, and was not to be tried again
  kFailed  // logged
};

// What is sent, and to whom, for the log.
struct AnswerText {
  const char* source;
  const char* topicName;
  const char* data;
  unsigned long length;
  const std::string& requestId;
};

Answer SendAnswer(lbm_response_t* response, const AnswerText& text, int maxRetries, int retrySleepMs, int flags);

}  // namespace lbm::details
