#include "feed/one_line.h"

#include <nlohmann/json.hpp>

namespace feed {
namespace {

// The number of bytes, 0 to 2, of the control character that the text starts with.
std::size_t ControlCharacter(std::string_view text) {
  const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  if (byte(0) < 0x20 || byte(0) == 0x7f) {
    return 1;
  }
  // U+0080 to U+009F, some of which start escape sequences.
  return byte(0) == 0xc2 && text.size() > 1 && byte(1) < 0xa0 ? 2 : 0;
}

bool IsContinuation(char c) { return (static_cast<unsigned char>(c) & 0xc0) == 0x80; }

std::string ToUtf8(std::string_view text) {
  const std::string json = nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  return nlohmann::json::parse(json).get<std::string>();
}

}  // namespace

bool IsOneLine(std::string_view text) {
  if (text.size() > kMaxTextLength) {
    return false;
  }
  for (; !text.empty(); text.remove_prefix(1)) {
    if (ControlCharacter(text) > 0) {
      return false;
    }
  }
  return true;
}

std::string OneLine(std::string_view text) {
  auto line = ToUtf8(text);
  for (std::size_t at = 0; at < line.size(); ++at) {
    if (const auto length = ControlCharacter(std::string_view(line).substr(at))) {
      line.replace(at, length, " ");
    }
  }
  if (line.size() > kMaxTextLength) {
    auto end = kMaxTextLength;
    while (IsContinuation(line[end])) {
      --end;
    }
    line.resize(end);
  }
  return line;
}

}  // namespace feed
