#include "backend/line_format.h"

#include <ctime>
#include <iterator>
#include <string>

#include "backend/levels.h"

namespace zq::logging {
namespace {

void Append(LineBuffer& buffer, std::string_view text) { buffer.append(text.data(), text.data() + text.size()); }

// The bytes 0xC2 0x80 to 0xC2 0x9F are control characters in UTF-8: some terminals obey them.
bool IsC1Control(std::string_view rest) {
  return rest.size() > 1 && rest[0] == '\xC2' && static_cast<unsigned char>(rest[1]) >= 0x80 &&
         static_cast<unsigned char>(rest[1]) <= 0x9F;
}

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

void AppendEscape(LineBuffer& buffer, char c) {
  switch (c) {
    case '\n':
      return Append(buffer, "\\n");
    case '\r':
      return Append(buffer, "\\r");
    case '\t':
      return Append(buffer, "\\t");
    default:
      fmt::format_to(std::back_inserter(buffer), "\\x{:02x}", static_cast<unsigned char>(c));
  }
}

void AppendText(LineBuffer& buffer, std::string_view text) {
  std::size_t begin = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool c1 = IsC1Control(text.substr(i));
    if (!c1 && !IsControl(text[i])) {
      continue;
    }
    Append(buffer, text.substr(begin, i - begin));
    AppendEscape(buffer, text[i]);
    if (c1) {
      AppendEscape(buffer, text[++i]);
    }
    begin = i + 1;
  }
  Append(buffer, text.substr(begin));
}

// A name that is one field of the line: without blanks, and never empty.
void AppendName(LineBuffer& buffer, std::string_view name) {
  if (name.empty()) {
    return Append(buffer, "-");
  }
  const auto begin = buffer.size();
  AppendText(buffer, name);
  for (auto i = begin; i < buffer.size(); ++i) {
    if (buffer[i] == ' ') {
      buffer[i] = '_';
    }
  }
}

// The parts of a local time that stay the same for a second: the conversion takes a lock of the C library.
struct Second {
  std::time_t time = -1;
  char date[sizeof "9999-12-31T23:59:60"] = {};
  char offset[sizeof "+00:00"] = {};
};

void AppendTime(LineBuffer& buffer, std::chrono::system_clock::time_point time) {
  thread_local Second second;
  const auto whole = std::chrono::floor<std::chrono::seconds>(time);
  const auto now = std::chrono::system_clock::to_time_t(whole);
  if (now != second.time) {
    std::tm local{};
    ::localtime_r(&now, &local);
    second.time = now;
    std::strftime(second.date, sizeof second.date, "%Y-%m-%dT%H:%M:%S", &local);
    const long minutes = local.tm_gmtoff / 60;
    const long absolute = minutes < 0 ? -minutes : minutes;
    *fmt::format_to_n(second.offset, sizeof second.offset - 1, "{}{:02}:{:02}", minutes < 0 ? '-' : '+', absolute / 60,
                      absolute % 60)
         .out = '\0';
  }
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(time - whole).count();
  fmt::format_to(std::back_inserter(buffer), "{}.{:06}{}", second.date, micros, second.offset);
}

}  // namespace

void FormatLine(LineBuffer& buffer, const Statement& statement) {
  const auto out = std::back_inserter(buffer);
  AppendTime(buffer, statement.time);
  if (const auto name = LevelName(statement.level); !name.empty()) {
    fmt::format_to(out, " {} ", name);
  } else {
    fmt::format_to(out, " {} ", static_cast<int>(statement.level));
  }
  fmt::format_to(out, "{}/", statement.threadId);
  AppendName(buffer, statement.threadName);
  Append(buffer, " ");
  AppendName(buffer, statement.source != nullptr ? statement.source->Reverse() : std::string());
  fmt::format_to(out, " {} ", statement.id);
  AppendName(buffer, statement.filename != nullptr ? statement.filename : "");
  fmt::format_to(out, ":{} ", statement.line);
  AppendText(buffer, statement.text);
  Append(buffer, "\n");
}

}  // namespace zq::logging
