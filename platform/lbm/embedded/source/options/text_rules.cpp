#include "options/text_rules.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <algorithm>
#include <charconv>
#include <string>

namespace engine {
namespace {

bool IsPrintable(char c) { return c > ' ' && c <= '~'; }

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool IsAddress(const std::string& text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool IsPrefixLength(std::string_view text) {
  unsigned length = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
  return error == std::errc{} && end == text.data() + text.size() && length <= 32;
}

}  // namespace

bool IsFileName(std::string_view text) {
  return !text.empty() && text != "." && text != ".." &&
         std::all_of(text.begin(), text.end(), [](char c) { return IsPrintable(c) && c != '/'; });
}

bool IsNetworkInterface(std::string_view text) {
  const auto slash = text.find('/');
  if (slash != std::string_view::npos) {
    return IsAddress(std::string(text.substr(0, slash))) && IsPrefixLength(text.substr(slash + 1));
  }
  // A mistyped address must not pass for a name.
  const bool looksLikeAddress = std::all_of(text.begin(), text.end(), [](char c) { return IsDigit(c) || c == '.'; });
  if (looksLikeAddress) {
    return IsAddress(std::string(text));
  }
  return IsFileName(text) && text.size() < IFNAMSIZ;
}

}  // namespace engine
