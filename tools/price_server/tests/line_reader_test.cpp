#include "line_reader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <future>
#include <vector>

namespace price_server {
namespace {

class LineReaderTest : public testing::Test {
 protected:
  LineReaderTest() { EXPECT_EQ(::pipe(m_pipe.data()), 0); }
  ~LineReaderTest() override {
    ::close(m_pipe[0]);
    if (m_pipe[1] >= 0) {
      ::close(m_pipe[1]);
    }
  }

  void Write(const std::string& text) const {
    EXPECT_EQ(::write(m_pipe[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void EndInput() {
    ::close(m_pipe[1]);
    m_pipe[1] = -1;
  }

  std::array<int, 2> m_pipe{};
};

TEST_F(LineReaderTest, GivesEveryLineOnceItIsTakenAndTheLastOneWithoutAnEnd) {
  std::vector<std::string> lines;
  std::promise<void> isLast;
  bool isRefused = false;
  Write("one\n\ntw");
  const LineReader reader(m_pipe[0], [&](const std::string& line) {
    isRefused = !isRefused;
    if (isRefused) {
      return false;
    }
    lines.push_back(line);
    if (line == "last") {
      isLast.set_value();
    }
    return true;
  });
  Write("o\n" + std::string(LineReader::kMaxLength + 10, 'a') + "\nlast");
  EndInput();
  isLast.get_future().wait();
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "", "two", std::string(LineReader::kMaxLength, 'a'), "last"}));
}

TEST_F(LineReaderTest, EndsAtAnyTime) {
  {
    const LineReader waiting(m_pipe[0], [](const std::string&) { return true; });
  }
  std::promise<void> isOffered;
  bool isFirst = true;
  Write("line\nline\n");
  const LineReader refused(m_pipe[0], [&](const std::string&) {
    if (std::exchange(isFirst, false)) {
      isOffered.set_value();
    }
    return false;
  });
  isOffered.get_future().wait();
}

}  // namespace
}  // namespace price_server
