// The page that a process writes.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "layout.h"
#include "zq/posix/descriptor.h"
#include "zq/statistics/row.h"
#include "zq/statistics/snapshot.h"

namespace zq::statistics {

struct PageSettings {
  std::string directory;  // empty: seen by this process alone
  std::size_t bytesMax = std::size_t{64} << 20;
  std::size_t rowsMax = 65'536;
};

// A file of the directory while this lives: "<program>.<process>.page", locked, so that others can tell whether its
// writer is alive, with mode 0600. Removes files of writers that are not. Memory of the file is taken as rows need it;
// when the file system has none left, rows are counted as other ones.
//
// Threads: any.
class Page {
 public:
  // Never throws for what the system refuses: then there is no file, and Fault() says why.
  explicit Page(const PageSettings& settings);
  ~Page();
  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;

  // The process's own, made when it is first asked for, and never destroyed: rows may be written until the very end.
  // Its file is removed at exit.
  static Page& OfProcess();

  const std::string& Path() const noexcept { return m_path; }
  const std::string& Fault() const noexcept { return m_fault; }
  void RemoveFile() noexcept;

  Snapshot Take();

 private:
  friend class Row;
  struct KnownKind;

  struct Place {
    details::Cell* cells = nullptr;
    const details::KindLayout* layout = nullptr;
    std::uint32_t index = 0;
    bool other = false;
  };

  struct Block {
    std::uint64_t offset = 0;
    std::size_t bytes = 0;
  };

  void OpenFile(const PageSettings& settings);
  void OnFork() noexcept;

  Place Make(const Kind& kind, std::initializer_list<std::string_view> labels);
  void Give(std::uint32_t index) noexcept;

  // With m_mutex:
  KnownKind* Known(const Kind& kind);
  std::optional<std::uint32_t> MakeRow(std::uint32_t kind, const details::KindLayout& layout,
                                       const std::vector<std::string_view>& labels);
  Block Allocate(std::size_t size);
  bool Map(std::uint64_t begin, std::uint64_t end);
  bool Back(std::uint64_t begin, std::uint64_t end);
  bool GrowIndex(std::uint64_t end);
  bool GrowHeap(std::uint64_t end);
  details::Cell* CellsOf(std::uint32_t index) const noexcept;

  template <class T>
  T* At(std::uint64_t offset) const noexcept {
    return reinterpret_cast<T*>(m_memory + offset);  // NOLINT(cppcoreguidelines-pro-type-reinterpret-cast)
  }
  Header& GetHeader() const noexcept { return *At<Header>(0); }
  details::Cell& Entry(std::size_t index) const noexcept { return At<details::Cell>(GetHeader().indexOffset)[index]; }

  std::mutex m_mutex;
  posix::Descriptor m_file;
  std::string m_path;
  std::string m_fault;
  pid_t m_process = 0;
  std::byte* m_memory = nullptr;
  std::size_t m_bytesMax;
  std::size_t m_rowsMax;
  std::uint64_t m_indexBacked = 0;  // offsets up to which the file has memory
  std::uint64_t m_heapBacked = 0;
  std::uint64_t m_heapEnd = 0;
  bool m_forked = false;
  std::uint32_t m_lastId = 0;
  std::map<std::string, std::unique_ptr<KnownKind>, std::less<>> m_kinds;
  std::vector<Block> m_rows;                                 // by index
  std::map<std::size_t, std::vector<std::uint64_t>> m_free;  // blocks' offsets by bytes
  std::vector<std::uint32_t> m_freeIndices;
};

}  // namespace zq::statistics
