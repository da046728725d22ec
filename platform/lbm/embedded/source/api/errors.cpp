#include "api/errors.h"

#include <lbm/lbm.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <new>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "system/error.h"

namespace engine::api {
namespace {

struct ThreadError {
  int number = 0;
  char text[kErrorTextRoom] = "";
};
thread_local constinit ThreadError t_error;

// Ends the full text in "...", without a torn UTF-8 character before it.
void MarkCut(char* text) {
  constexpr std::string_view kMark = "...";
  const auto isContinuation = [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U; };
  char* end = text + kErrorTextRoom - 1 - kMark.size();
  while (end > text && isContinuation(*end)) {
    --end;
  }
  *std::copy(kMark.begin(), kMark.end(), end) = '\0';
}

int SetError(int number, std::initializer_list<std::string_view> pieces) noexcept {
  std::size_t used = 0;
  bool cut = false;
  for (const std::string_view piece : pieces) {
    const std::size_t taken = std::min(piece.size(), kErrorTextRoom - 1 - used);
    std::memmove(t_error.text + used, piece.data(), taken);  // the piece may be of the present text
    used += taken;
    cut = cut || taken < piece.size();
  }
  t_error.text[used] = '\0';
  if (cut) {
    MarkCut(t_error.text);
  }
  t_error.number = number;
  return -1;
}

}  // namespace

int Fail(int number, const char* text) noexcept { return SetError(number, {text}); }

int FailCaught(const char* function) noexcept {
  const auto failWith = [function](int number, std::string_view text) {
    return SetError(number, {function, ": ", text});
  };
  try {
    throw;
  } catch (const Error& error) {
    return failWith(error.Number(), error.what());
  } catch (const std::bad_alloc&) {
    return failWith(LBM_ENOMEM, "out of memory");
  } catch (const std::system_error& error) {
    return failWith(LBM_EOS, error.what());
  } catch (const std::invalid_argument& error) {
    return failWith(LBM_EINVAL, error.what());
  } catch (const std::exception& error) {
    return failWith(LBM_EOP, error.what());
  } catch (...) {
    return failWith(LBM_EOP, "an exception of unknown type");
  }
}

}  // namespace engine::api

int lbm_errnum() { return engine::api::t_error.number; }

const char* lbm_errmsg() { return engine::api::t_error.text; }
