#include "backend/line_format.h"

#include <algorithm>
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

void AppendLevel(LineBuffer& buffer, LogLevel level) {
  if (const auto name = LevelName(level); !name.empty()) {
    Append(buffer, name);
  } else {
    fmt::format_to(std::back_inserter(buffer), "{}", static_cast<int>(level));
  }
}

std::string SourcePath(const Source* source) { return source != nullptr ? source->Reverse() : std::string(); }

// How many bytes the UTF-8 character at the beginning of rest has; 0 when there is none.
std::size_t CharacterLength(std::string_view rest) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(rest[i]); };
  const auto lead = byte(0);
  if (lead < 0x80) {
    return 1;
  }
  if (lead < 0xC2 || lead > 0xF4) {
    return 0;
  }
  const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (rest.size() < length) {
    return 0;
  }
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) {
      return 0;
    }
  }
  const bool overlong = (lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xF0 && byte(1) < 0x90);
  const bool surrogate = lead == 0xED && byte(1) > 0x9F;
  const bool tooLarge = lead == 0xF4 && byte(1) > 0x8F;
  return overlong || surrogate || tooLarge ? 0 : length;
}

void AppendJsonString(LineBuffer& buffer, std::string_view text) {
  const auto out = std::back_inserter(buffer);
  const auto isPlain = [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; };
  Append(buffer, "\"");
  while (!text.empty()) {
    const auto special = std::find_if_not(text.begin(), text.end(), isPlain);
    Append(buffer, {text.begin(), special});
    text.remove_prefix(static_cast<std::size_t>(special - text.begin()));
    if (text.empty()) {
      break;
    }
    const auto length = CharacterLength(text);
    if (length == 0) {
      Append(buffer, "\\ufffd");
    } else if (IsControl(text[0])) {
      fmt::format_to(out, "\\u{:04x}", static_cast<unsigned char>(text[0]));
    } else if (IsC1Control(text)) {
      fmt::format_to(out, "\\u{:04x}", static_cast<unsigned char>(text[1]));
    } else {
      Append(buffer, length == 1 ? "\\" : "");  // a quotation mark or a backslash
      Append(buffer, text.substr(0, length));
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  Append(buffer, "\"");
}

void AppendAsText(LineBuffer& buffer, const Statement& statement) {
  const auto out = std::back_inserter(buffer);
  AppendTime(buffer, statement.time);
  Append(buffer, " ");
  AppendLevel(buffer, statement.level);
  fmt::format_to(out, " {}/", statement.threadId);
  AppendName(buffer, statement.threadName);
  Append(buffer, " ");
  AppendName(buffer, SourcePath(statement.source));
  fmt::format_to(out, " {} ", statement.id);
  AppendName(buffer, statement.filename != nullptr ? statement.filename : "");
  fmt::format_to(out, ":{} ", statement.line);
  AppendText(buffer, statement.text);
}

void AppendAsJson(LineBuffer& buffer, const Statement& statement) {
  const auto out = std::back_inserter(buffer);
  Append(buffer, R"({"time":")");
  AppendTime(buffer, statement.time);
  Append(buffer, R"(","level":")");
  AppendLevel(buffer, statement.level);
  fmt::format_to(out, R"(","thread":{},"threadName":)", statement.threadId);
  AppendJsonString(buffer, statement.threadName);
  Append(buffer, R"(,"source":)");
  AppendJsonString(buffer, SourcePath(statement.source));
  fmt::format_to(out, R"(,"id":{},"file":)", statement.id);
  AppendJsonString(buffer, statement.filename != nullptr ? statement.filename : "");
  fmt::format_to(out, R"(,"line":{},"text":)", statement.line);
  AppendJsonString(buffer, statement.text);
  Append(buffer, "}");
}

}  // namespace

void FormatLine(LineBuffer& buffer, const Statement& statement, LineFormat format) {
  if (format == LineFormat::kJson) {
    AppendAsJson(buffer, statement);
  } else {
    AppendAsText(buffer, statement);
  }
  Append(buffer, "\n");
}

std::string_view WithoutTime(std::string_view line) {
  return line.substr(0, 1) == "{" ? line : line.substr(line.find(' ') + 1);
}

}  // namespace zq::logging
