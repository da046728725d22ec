#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "page.h"
#include "page_directory.h"
#include "test_support/temporary_directory.h"
#include "zq/statistics/row.h"
#include "zq/statistics/snapshot.h"

namespace {

namespace statistics = zq::statistics;
using statistics::FieldType;
using testing::ElementsAre;
using testing::SizeIs;

enum : std::size_t { kMessages, kOpen, kLongest, kLatency };

const statistics::Kind kThing{.name = "thing",
                              .help = "A thing.",
                              .labels = {"context", "topic"},
                              .fields = {{"messages", FieldType::kCounter, "", "Messages."},
                                         {"open", FieldType::kGauge, "", "Open ones."},
                                         {"longest", FieldType::kRecentMaximum, "nanoseconds", "The longest."},
                                         {"latency", FieldType::kHistogram, "nanoseconds", "Latency."}}};

class PageTest : public testing::Test {
 protected:
  statistics::Snapshot Look() const { return statistics::ReadPage(m_page->Path()); }

  const test_support::TemporaryDirectory m_directory;
  const std::unique_ptr<statistics::Page> m_page =
      std::make_unique<statistics::Page>(statistics::PageSettings{.directory = m_directory.Path() / "pages"});
};

TEST_F(PageTest, ShowsOthersWhatIsWritten) {
  statistics::Row row(*m_page, kThing, {"a", "prices.X"});
  row.Add(kMessages, 3);
  row.Add(kOpen, 1);
  row.Subtract(kOpen, 3);

  const statistics::Snapshot snapshot = Look();
  EXPECT_EQ(::getpid(), snapshot.process);
  EXPECT_EQ("statistics_test", snapshot.program);
  EXPECT_EQ(0U, snapshot.rowsInOther);
  ASSERT_THAT(snapshot.Of("thing"), SizeIs(2));  // with "other"
  const statistics::RowValues& thing = *snapshot.Of("thing")[1];
  EXPECT_THAT(thing.labels, ElementsAre("a", "prices.X"));
  EXPECT_EQ("prices.X", thing.Label("topic"));
  EXPECT_EQ(3U, thing.Find("messages")->Count());
  EXPECT_EQ(-2, thing.Find("open")->number);
  EXPECT_EQ(nullptr, thing.Find("nothing"));
  EXPECT_EQ("nanoseconds", thing.kind->fields[kLatency].unit);
}

TEST_F(PageTest, LosesNoAdditionOfAnyThread) {
  statistics::Row row(*m_page, kThing, {"a", "b"});
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 20'000; ++j) {
        row.Add(kMessages);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(80'000U, Look().Of("thing")[1]->values[kMessages].Count());
}

TEST_F(PageTest, LosesNoSerialAdditionBesideThoseOfAnyThread) {
  statistics::Page small({.directory = m_directory.Path() / "pages", .bytesMax = 1U << 20U, .rowsMax = 2});
  statistics::Row row(small, kThing, {"a", "b"});
  statistics::Row inOther(small, kThing, {"a", "c"});
  for (statistics::Row* one : {&row, &inOther}) {
    std::atomic<int> turn{0};
    const auto additions = [&](int mine) {
      for (int i = 0; i < 2'000; ++i) {
        one->Add(kOpen);
        while (turn.load() % 2 != mine) {
          std::this_thread::yield();
        }
        one->Serial().Add(kMessages);
        turn.fetch_add(1);
      }
    };
    std::thread other(additions, 1);
    additions(0);
    other.join();
  }
  const statistics::Snapshot snapshot = statistics::ReadPage(small.Path());
  ASSERT_THAT(snapshot.Of("thing"), SizeIs(2));
  for (const statistics::RowValues* one : snapshot.Of("thing")) {
    EXPECT_EQ(4'000U, one->values[kMessages].Count());
    EXPECT_EQ(4'000, one->values[kOpen].number);
  }
}

TEST_F(PageTest, RowsLeaveWithTheirObjectsAndTheirPlaceIsUsedAgain) {
  const std::uint64_t bytes = [&] {
    const statistics::Row row(*m_page, kThing, {"a", "b"});
    return Look().bytes;
  }();
  EXPECT_THAT(Look().Of("thing"), SizeIs(1));
  for (int i = 0; i < 1000; ++i) {
    statistics::Row row(*m_page, kThing, {"c", "d"});
    EXPECT_EQ(0U, m_page->Take().Of("thing")[1]->values[kMessages].Count()) << "of the row that was there before";
    row.Add(kMessages);
  }
  EXPECT_EQ(bytes, Look().bytes);
}

TEST_F(PageTest, WindowsForgetAndTotalsDoNot) {
  statistics::Row row(*m_page, kThing, {"a", "b"});
  constexpr std::uint64_t kSecond = 1'000'000'000;
  const std::uint64_t now = statistics::Now();
  // The last one, of the future, is what somebody has scribbled there.
  for (const auto& [ago, value] : {std::pair{200, 900}, {40, 500}, {1, 100}, {-5, 950}}) {
    row.RecordMaximum(kLongest, static_cast<std::uint64_t>(value), now - static_cast<std::uint64_t>(ago) * kSecond);
    row.RecordInHistogram(kLatency, static_cast<std::uint64_t>(value), now - static_cast<std::uint64_t>(ago) * kSecond);
  }
  const statistics::Snapshot snapshot = Look();
  const auto& values = snapshot.Of("thing")[1]->values;
  EXPECT_EQ(950U, values[kLongest].Count());
  EXPECT_EQ(100U, values[kLongest].recentMaximum);
  EXPECT_EQ(4U, values[kLatency].all->count);
  EXPECT_EQ(2U, values[kLatency].last60s->count);
  EXPECT_EQ(1U, values[kLatency].last10s->count);
  EXPECT_EQ(100U, values[kLatency].last10s->Quantile(0.5));
  EXPECT_EQ(2450U, values[kLatency].all->sum);
  // To the bucket's end: 500 is among 448 to 511.
  EXPECT_EQ(511U, values[kLatency].all->Quantile(0.5));
  EXPECT_EQ(950U, values[kLatency].all->Quantile(1));
}

TEST(Value, TakesNoMoreThanItHas) {
  static_assert(sizeof(statistics::Value) < 64, "a snapshot has a hundred thousand of them");
  statistics::Value value;
  value.all.Emplace().count = 1;
  statistics::Value copy = value;
  value.all->count = 2;
  EXPECT_EQ(1U, copy.all->count);
  EXPECT_FALSE(copy.last10s);
  copy = statistics::Value();
  EXPECT_FALSE(copy.all);
}

TEST_F(PageTest, CountsTogetherWhatHasNoRoom) {
  statistics::Page small({.directory = m_directory.Path() / "pages", .bytesMax = 1U << 20U, .rowsMax = 3});
  std::vector<std::unique_ptr<statistics::Row>> rows;
  for (int i = 0; i < 5; ++i) {
    rows.push_back(std::make_unique<statistics::Row>(small, kThing, std::initializer_list<std::string_view>{"a", "b"}));
    rows.back()->Add(kMessages, 10);
    rows.back()->RecordInHistogram(kLatency, 1, statistics::Now());
    rows.back()->Set(kOpen, 7);
  }
  const statistics::Snapshot snapshot = statistics::ReadPage(small.Path());
  EXPECT_EQ(3U, snapshot.rowsInOther);
  ASSERT_THAT(snapshot.rows, SizeIs(3));
  EXPECT_THAT(snapshot.rows[0].labels, ElementsAre("other", "other"));
  EXPECT_EQ(30U, snapshot.rows[0].values[kMessages].Count());
  EXPECT_EQ(0, snapshot.rows[0].values[kOpen].number);
  EXPECT_EQ(10U, snapshot.rows[2].values[kMessages].Count());
}

TEST_F(PageTest, GrowsNoFileBeyondTheLimitThatWouldEndTheProcess) {
  const std::string directory = m_directory.Path() / "pages";
  const pid_t child = ::fork();
  if (child == 0) {
    const struct rlimit limit { .rlim_cur = 1U << 20U, .rlim_max = 1U << 20U };
    ::setrlimit(RLIMIT_FSIZE, &limit);
    statistics::Page page({.directory = directory});
    std::vector<std::unique_ptr<statistics::Row>> rows;
    for (int i = 0; i < 100; ++i) {
      rows.push_back(
          std::make_unique<statistics::Row>(page, kThing, std::initializer_list<std::string_view>{"a", "b"}));
      rows.back()->Add(kMessages);
    }
    ::_exit(page.Fault().empty() && statistics::ReadPage(page.Path()).rowsInOther > 0 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
}

TEST_F(PageTest, NothingIsLostWhereNoFileCanBe) {
  const std::ofstream file(m_directory.Path() / "file");
  statistics::Page hidden({.directory = m_directory.Path() / "file"});
  const auto refused = testing::HasSubstr("must be a directory that belongs to the process's user");
  EXPECT_THAT(hidden.Fault(), refused);
  const std::string open = m_directory.Path() / "open";
  for (const char* const fault : {"others may write to it", "it belongs to another user"}) {
    std::filesystem::create_directory(open);
    ASSERT_EQ(0, ::chmod(open.c_str(), *fault == 'o' ? 0777 : 0700));
    if (*fault == 'i' && ::chown(open.c_str(), 12345, 12345) != 0) {
      continue;  // takes the rights of the superuser
    }
    EXPECT_THAT(statistics::Page({.directory = open}).Fault(), refused) << fault;
    std::filesystem::remove_all(open);
  }
  statistics::Row row(hidden, kThing, {"a", "b"});
  row.Add(kMessages);
  EXPECT_EQ(1U, hidden.Take().Of("thing")[1]->values[kMessages].Count());
}

TEST_F(PageTest, IsRemovedWithItsWriterOrByTheNextOne) {
  const std::string directory = m_directory.Path() / "pages";
  EXPECT_EQ(0600U, std::filesystem::status(m_page->Path()).permissions() == std::filesystem::perms(0600) ? 0600U : 0U);
  const pid_t child = ::fork();
  if (child == 0) {
    new statistics::Page({.directory = directory});
    ::_exit(0);
  }
  ASSERT_EQ(child, ::waitpid(child, nullptr, 0));
  const auto lives = [&] {
    std::vector<bool> alive;
    for (const statistics::PageFile& page : statistics::ListPages(directory)) {
      alive.push_back(page.alive);
    }
    std::sort(alive.begin(), alive.end());
    return alive;
  };
  EXPECT_THAT(lives(), ElementsAre(false, true));
  {
    const statistics::Page next({.directory = directory});
    EXPECT_THAT(lives(), ElementsAre(true, true)) << "of one process";
  }
  EXPECT_THAT(lives(), ElementsAre(true));
}

TEST_F(PageTest, NothingButAFileIsListedAsAPage) {
  const std::filesystem::path directory = std::filesystem::path(m_page->Path()).parent_path();
  ASSERT_EQ(0, ::mkfifo((directory / "pipe.1.page").c_str(), 0600));
  std::filesystem::create_symlink(m_page->Path(), directory / "link.1.page");
  std::filesystem::create_directory(directory / "directory.1.page");
  EXPECT_THAT(statistics::ListPages(directory), SizeIs(1));
}

TEST(ProcessPage, IsNotWrittenByAForkedChild) {
  statistics::Row row(kThing, {"forked", "b"});
  row.Add(kMessages);
  const pid_t child = ::fork();
  if (child == 0) {
    row.Add(kMessages, 100);
    const statistics::Row made(kThing, {"made by the child", "b"});
    ::_exit(statistics::TakeSnapshot().rows.empty() ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
  const statistics::Snapshot snapshot = statistics::TakeSnapshot();
  ASSERT_THAT(snapshot.Of("thing"), SizeIs(2));
  EXPECT_EQ(1U, snapshot.Of("thing")[1]->values[kMessages].Count());
}

TEST(Buckets, CoverAllValuesWithoutGaps) {
  for (std::size_t bucket = 0; bucket < statistics::kBuckets; ++bucket) {
    ASSERT_EQ(bucket, statistics::BucketOf(statistics::BucketBegin(bucket)));
    ASSERT_EQ(bucket, statistics::BucketOf(statistics::BucketBegin(bucket + 1) - 1));
  }
  EXPECT_EQ(statistics::kBuckets - 1, statistics::BucketOf(~std::uint64_t{0}));
}

}  // namespace
