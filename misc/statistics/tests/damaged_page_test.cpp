// Readers of pages that nobody should have written so.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "page.h"
#include "test_support/temporary_directory.h"
#include "zq/statistics/row.h"
#include "zq/statistics/snapshot.h"

namespace {

namespace statistics = zq::statistics;
using statistics::FieldType;
using testing::HasSubstr;

const statistics::Kind kThing{
    .name = "thing",
    .help = "A thing.",
    .labels = {"name"},
    .fields = {{"messages", FieldType::kCounter, "", ""}, {"latency", FieldType::kHistogram, "nanoseconds", ""}}};

class DamagedPage : public testing::Test {
 protected:
  DamagedPage() {
    for (int i = 0; i < 3; ++i) {
      m_rows[i] = std::make_unique<statistics::Row>(m_page, kThing,
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
}

TEST_F(DamagedPage, OfAnyBytesIsReadOrRefused) {
  std::mt19937 random(1);  // NOLINT(cert-msc51-cpp): every run is to be the same
  int refused = 0;
  const std::size_t used = statistics::ReadPage(m_page.Path()).bytes;
  for (int i = 0; i < 2000; ++i) {
    const std::filesystem::copy_options again = std::filesystem::copy_options::overwrite_existing;
    if (i % 50 == 0) {
      std::filesystem::copy_file(m_page.Path(), m_copy, again);
    }
    const std::size_t size = 1 + random() % 8;
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
      byte = static_cast<char>(random() % 3 == 0 ? 0xff : random());
    }
    // The beginning, the index, and the blocks of kind and rows.
    Write(24 + random() % (i % 2 == 0 ? 1500 : used), bytes);
    refused += Refusal() == "was read" ? 0 : 1;
  }
  EXPECT_GT(refused, 0);
}

TEST_F(DamagedPage, RowsThatComeAndGoAreNeverMixedUp) {
  std::atomic<bool> ended{false};
  std::thread writer([&] {
    for (int i = 0; !ended; ++i) {
      const std::string name(static_cast<std::size_t>(i % 2 == 0 ? 8 : 300), i % 2 == 0 ? 'a' : 'b');
      statistics::Row row(m_page, kThing, {name});
      row.Add(0, i % 2 == 0 ? 8 : 300);
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
        statistics::Kind kind = kThing;
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
