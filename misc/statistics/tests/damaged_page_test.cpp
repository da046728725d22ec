// Readers of pages that nobody should have written so.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "layout.h"
#include "page.h"
#include "test_support/temporary_directory.h"
#include "zq/statistics/row.h"
#include "zq/statistics/snapshot.h"

namespace {

namespace statistics = zq::statistics;
using statistics::FieldType;
using testing::HasSubstr;

const statistics::Kind kKind{
    .name = "thing",
    .help = "A thing.",
    .labels = {"name"},
    .fields = {{"messages", FieldType::kCounter, "", ""}, {"latency", FieldType::kHistogram, "nanoseconds", ""}}};

class DamagedPage : public testing::Test {
 protected:
  DamagedPage() {
    for (int i = 0; i < 3; ++i) {
      m_rows[i] = std::make_unique<statistics::Row>(m_page, kKind,
                                                    std::initializer_list<std::string_view>{std::string(9, 'x')});
    }
    std::filesystem::copy_file(m_page.Path(), m_copy);
  }

  void Write(std::size_t offset, const std::string& bytes) const {
    std::fstream file(m_copy, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(offset));
    file << bytes;
  }

  std::string Refusal() const {
    try {
      statistics::ReadPage(m_copy);
      return "was read";
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }

  const test_support::TemporaryDirectory m_directory;
  const std::string m_copy = m_directory.Path() / "copy.page";
  statistics::Page m_page{{.directory = m_directory.Path() / "pages", .bytesMax = 1U << 20U, .rowsMax = 64}};
  std::unique_ptr<statistics::Row> m_rows[3];
};

TEST_F(DamagedPage, IsRefusedWithItsReason) {
  Write(0, "notstats");
  EXPECT_THAT(Refusal(), HasSubstr("it is no page of statistics"));
  Write(0, std::string("zqstats\0", 8));
  EXPECT_EQ("was read", Refusal());
  Write(8, std::string(1, '\x7f'));
  EXPECT_THAT(Refusal(), testing::StartsWith(m_copy + ": it was written by another version (page version 127"));
  for (const std::uintmax_t size : {0, 100, 5000}) {
    std::filesystem::resize_file(m_copy, size);
    EXPECT_THAT(Refusal(), HasSubstr("it ")) << size;
  }
  std::filesystem::remove(m_copy);
  EXPECT_THAT(Refusal(), HasSubstr("No such file"));
  std::filesystem::create_symlink(m_page.Path(), m_copy);
  EXPECT_NE("was read", Refusal());
  std::filesystem::remove(m_copy);
  std::filesystem::create_directory(m_copy);
  EXPECT_THAT(Refusal(), HasSubstr("it is no file"));
  std::filesystem::remove(m_copy);
  ASSERT_EQ(0, ::mkfifo(m_copy.c_str(), 0600));
  EXPECT_THAT(Refusal(), HasSubstr("it is no file"));
  if (::geteuid() == 0) {
    std::filesystem::remove(m_copy);
    std::filesystem::copy_file(m_page.Path(), m_copy);
    ASSERT_EQ(0, ::chown(m_copy.c_str(), 12345, 12345));
    EXPECT_THAT(Refusal(), HasSubstr("it belongs to user 12345"));
  }
}

TEST_F(DamagedPage, IsRefusedForEachNumberThatCannotBe) {
  using statistics::Header;
  using statistics::kUnit;
  std::ostringstream text;
  text << std::ifstream(m_copy).rdbuf();
  const std::string page = text.str();
  const auto at = [&](std::size_t offset) {
    std::uint64_t number = 0;
    std::memcpy(&number, &page[offset], sizeof number);
    return number;
  };
  const std::uint64_t index = at(offsetof(Header, indexOffset));
  const std::uint64_t heap = at(offsetof(Header, heapOffset));
  const std::uint64_t heapEnd = at(offsetof(Header, heapEnd));
  const std::size_t kind = (at(offsetof(Header, kinds)) & 0xffffffff) * kUnit;
  const std::size_t row = statistics::OffsetOf(at(index));
  const std::size_t fieldType = page.find(std::string("\x08\0messages", 10)) - sizeof(std::uint32_t);
  const char* const places = "its size or its parts' places are wrong";
  const struct {
    std::size_t offset;
    std::size_t size;
    std::uint64_t number;
    const char* reason;
  } cases[] = {{offsetof(Header, headerBytes), 4, sizeof(Header) + 8, "another version"},
               {offsetof(Header, layoutChecksum), 8, statistics::LayoutChecksum() + 1, "another version"},
               {offsetof(Header, bytesMax), 8, statistics::kPageBytesMax + kUnit, places},
               {offsetof(Header, bytesMax), 8, heapEnd - kUnit, places},
               {offsetof(Header, indexOffset), 8, 0, places},
               {offsetof(Header, indexOffset), 8, index + 8, places},
               {offsetof(Header, heapOffset), 8, 0, places},
               {offsetof(Header, heapOffset), 8, heap + 8, places},
               {offsetof(Header, heapEnd), 8, heap - kUnit, places},
               {offsetof(Header, heapEnd), 8, heapEnd + 8, places},
               {offsetof(Header, heapEnd), 8, (page.size() / kUnit + 1) * kUnit, places},
               {offsetof(Header, indexUsed), 8, (heap - index) / 8 + 1, places},
               {offsetof(Header, kindsUsed), 8, statistics::kKindsMax + 1, places},
               {offsetof(Header, kinds), 4, 0, "lies outside of it"},
               {offsetof(Header, kinds), 4, heapEnd / kUnit, "lies outside of it"},
               {kind, 4, 0xffffffff, "longer than the place"},
               {fieldType, 4, 0, "of no known type"},
               {fieldType, 4, 77, "of no known type"},
               {row, 4, 0xffffffff, "of no known kind"},
               {row + 4, 4, 1, "of no known kind"}};
  for (const auto& one : cases) {
    std::string bytes(sizeof one.number, '\0');
    std::memcpy(bytes.data(), &one.number, bytes.size());
    Write(one.offset, bytes.substr(0, one.size));
    EXPECT_THAT(Refusal(), HasSubstr(one.reason)) << one.number << " at " << one.offset;
    Write(one.offset, page.substr(one.offset, one.size));
    ASSERT_EQ("was read", Refusal());
  }
}

TEST_F(DamagedPage, HoldsUpNobodyWhenItBecomesShorterMeanwhile) {
  std::atomic<bool> ended{false};
  std::thread scissors([&] {
    const auto size = std::filesystem::file_size(m_copy);
    for (bool cut = true; !ended; cut = !cut) {
      std::filesystem::resize_file(m_copy, cut ? 4096 : size);
    }
  });
  while (Refusal().find("shorter than it says") == std::string::npos) {
  }
  ended = true;
  scissors.join();
}

// Each of them would take memory of the reader's.
TEST_F(DamagedPage, WithRowsThatShareABlockIsRefused) {
  std::ifstream file(m_copy, std::ios::binary);
  statistics::Header header;
  file.read(reinterpret_cast<char*>(&header), sizeof header);
  std::uint64_t row = 0;
  file.seekg(static_cast<std::streamoff>(header.indexOffset));
  file.read(reinterpret_cast<char*>(&row), sizeof row);
  std::string rows;
  for (header.indexUsed = 0; header.indexUsed < header.rowsMax; ++header.indexUsed) {
    rows.append(reinterpret_cast<const char*>(&row), sizeof row);
  }
  Write(0, {reinterpret_cast<const char*>(&header), sizeof header});
  Write(header.indexOffset, rows);
  EXPECT_THAT(Refusal(), HasSubstr("more room than it has"));
}

TEST_F(DamagedPage, RowsThatComeAndGoAreNeverMixedUp) {
  std::atomic<bool> ended{false};
  std::thread writer([&] {
    for (int i = 0; !ended; ++i) {
      // In one place, one after the other.
      const std::string name(i % 2 == 0 ? 8 : 9, 'a');
      statistics::Row row(m_page, kKind, {name});
      row.Add(0, name.size());
    }
  });
  for (int i = 0; i < 300; ++i) {
    for (const statistics::Snapshot& snapshot : {statistics::ReadPage(m_page.Path()), m_page.Take()}) {
      for (const statistics::RowValues& row : snapshot.rows) {
        const std::uint64_t messages = row.values[0].Count();
        EXPECT_TRUE(messages == 0 || messages == row.labels[0].size()) << row.labels[0] << ' ' << messages;
      }
    }
  }
  ended = true;
  writer.join();
}

TEST_F(DamagedPage, IsNotSeenInOneThatGrowsAndLearnsNewKinds) {
  for (int round = 0; round < 20; ++round) {
    statistics::Page page({.directory = m_directory.Path() / "pages"});
    std::atomic<bool> ended{false};
    std::thread writer([&] {
      std::vector<std::unique_ptr<statistics::Row>> rows;
      for (int number = 0; number < 100; ++number) {
        statistics::Kind kind = kKind;
        kind.name += std::to_string(number);
        for (int i = 0; i < 3; ++i) {
          rows.push_back(std::make_unique<statistics::Row>(page, kind, std::initializer_list<std::string_view>{"a"}));
        }
      }
      ended = true;
      while (ended) {
        std::this_thread::yield();
      }
    });
    while (!ended) {
      EXPECT_NO_THROW(statistics::ReadPage(page.Path()));
    }
    EXPECT_EQ(400U, statistics::ReadPage(page.Path()).rows.size());
    EXPECT_EQ(0U, statistics::ReadPage(page.Path()).rowsInOther);
    ended = false;
    writer.join();
  }
}

}  // namespace
