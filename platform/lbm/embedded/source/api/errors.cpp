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
  char text[errorTextRoom] = "";
};
thread_local constinit ThreadError t_error;

// Ends the full text in "...", without a torn UTF-8 character before it.
void markCut(char* text) {
  constexpr std::string_view mark = "...";
  const auto isContinuation = [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U; };
  char* end = text + errorTextRoom - 1 - mark.size();
  while (end > text && isContinuation(*end)) --end;
  *std::copy(mark.begin(), mark.end(), end) = '\0';
}

int setError(int number, std::initializer_list<std::string_view> pieces) noexcept {
  std::size_t used = 0;
  bool cut = false;
  for (const std::string_view piece : pieces) {
    const std::size_t taken = std::min(piece.size(), errorTextRoom - 1 - used);
    std::memmove(t_error.text + used, piece.data(), taken);  // the piece may be of the present text
    used += taken;
    cut = cut || taken < piece.size();
  }
  t_error.text[used] = '\0';
  if (cut) markCut(t_error.text);
  t_error.number = number;
  return -1;
}

}  // namespace

int fail(int number, const char* text) noexcept { return setError(number, {text}); }

int failCaught(const char* function) noexcept {
  const auto failWith = [function](int number, std::string_view text) {
    return setError(number, {function, ": ", text});
  };
  try {
    throw;
  } catch (const Error& error) {
    return failWith(error.number(), error.what());
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
