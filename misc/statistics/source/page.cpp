#include "page.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "page_directory.h"
#include "page_reader.h"
#include "zq/posix/error.h"
#include "zq/posix/file.h"

namespace zq::statistics {

namespace {

constexpr std::string_view kOther = "other";
constexpr std::uint64_t kMemoryPage = 4096;
constexpr std::uint64_t kBackedAtOnce = std::uint64_t{256} << 10;

constexpr std::uint64_t RoundUp(std::uint64_t bytes, std::uint64_t unit) { return (bytes + unit - 1) / unit * unit; }

void Append(std::string& bytes, std::string_view text) {
  const auto length = static_cast<std::uint16_t>(std::min(text.size(), kTextMax));
  bytes.append({static_cast<char>(length & 0xffU), static_cast<char>(length >> 8U)}).append(text.substr(0, length));
}

void Append(std::string& bytes, std::size_t number, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    bytes.push_back(static_cast<char>(number >> (8 * i) & 0xffU));
  }
}

std::string Describe(const Kind& kind) {
  std::string bytes;
  Append(bytes, kind.name);
  Append(bytes, kind.help);
  Append(bytes, kind.labels.size(), 2);
  for (const std::string& label : kind.labels) {
    Append(bytes, label);
  }
  Append(bytes, kind.fields.size(), 2);
  for (const Field& field : kind.fields) {
    Append(bytes, static_cast<std::size_t>(field.type), 4);
    Append(bytes, field.name);
    Append(bytes, field.unit);
    Append(bytes, field.help);
  }
  std::string block;
  Append(block, bytes.size(), 4);
  return block + bytes;
}

std::string ProgramName() {
  std::string path(4096, '\0');
  const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
  path.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  return path.substr(path.rfind('/') + 1);
}

// The process's start in clock ticks since the machine's, from the 22nd field; 0 when it is not to be had.
std::uint64_t StartTicks() {
  try {
    const std::string stat = posix::ReadFile("/proc/self/stat", 4096);
    std::size_t at = stat.rfind(')');  // ends the second field, which may hold anything
    for (int field = 2; field < 22 && at != std::string::npos; ++field) {
      at = stat.find(' ', at + 1);
    }
    return at == std::string::npos ? 0 : std::stoull(stat.substr(at + 1));
  } catch (const std::exception&) {
    return 0;
  }
}

// Growing a file beyond this would end the process.
std::uint64_t FileBytesMax() {
  struct rlimit limit {};
  return ::getrlimit(RLIMIT_FSIZE, &limit) == 0 ? limit.rlim_cur : RLIM_INFINITY;
}

}  // namespace

struct Page::KnownKind {
  explicit KnownKind(const Kind& theKind) : kind(theKind), layout(theKind.fields) {}

  Kind kind;
  details::KindLayout layout;
  std::uint32_t id = 0;
  details::Cell* other = nullptr;  // cells of the row of those for which there was no room; null: nor was for it
};

Page::Page(const PageSettings& settings)
    : m_process(::getpid()),
      m_bytesMax(std::min(RoundUp(settings.bytesMax, kMemoryPage), kPageBytesMax)),
      m_rowsMax(settings.rowsMax) {
  if (!settings.directory.empty()) {
    try {
      OpenFile(settings);
    } catch (const std::exception& error) {
      m_file = {};
      m_fault = error.what();
    }
  }
  // Addresses for the largest page; memory comes as rows need it, also for a process that locks all of its memory.
  void* const addresses = ::mmap(nullptr, m_bytesMax, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (addresses == MAP_FAILED) {
    m_fault = "reserving addresses for a page: " + posix::ErrorText(errno);
    m_file = {};
    return;
  }
  m_memory = static_cast<std::byte*>(addresses);

  const std::uint64_t indexOffset = RoundUp(sizeof(Header), kUnit);
  m_heapEnd = RoundUp(indexOffset + m_rowsMax * sizeof(std::uint64_t), kMemoryPage);
  // The file is as long as the page says from the beginning, and takes memory for the part that is in use.
  if (!Map(0, m_heapEnd) || (m_file && ::ftruncate(m_file.Get(), static_cast<off_t>(m_heapEnd)) != 0) ||
      !Back(0, indexOffset + kMemoryPage)) {
    m_fault = "there is no room for a page of statistics" + (m_file ? " in " + settings.directory : std::string());
    ::munmap(std::exchange(m_memory, nullptr), m_bytesMax);
    m_file = {};
    return;
  }
  m_indexBacked = RoundUp(indexOffset + kMemoryPage, kMemoryPage);
  m_heapBacked = m_heapEnd;
  auto* const header = new (m_memory) Header{};
  header->magic = kMagic;
  header->version = kVersion;
  header->headerBytes = sizeof(Header);
  header->layoutChecksum = LayoutChecksum();
  header->bytesMax = m_bytesMax;
  header->indexOffset = indexOffset;
  header->rowsMax = m_rowsMax;
  header->heapOffset = m_heapEnd;
  header->process = m_process;
  header->startTicks = StartTicks();
  header->startRealtime = std::chrono::system_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
  header->startMonotonic = Now();
  ProgramName().copy(header->program.data(), header->program.size() - 1);
  header->heapEnd = m_heapEnd;

  if (m_file) {
    try {
      m_path = PublishPage(settings.directory, m_file.Get(), header->program.data(), m_process);
    } catch (const std::exception& error) {
      m_fault = error.what();  // what was written stays readable for this process
    }
  }
}

Page::~Page() {
  RemoveFile();
  if (m_memory != nullptr) {
    ::munmap(m_memory, m_bytesMax);
  }
}

void Page::OpenFile(const PageSettings& settings) {
  m_file = OpenUnnamedPage(settings.directory);
  if (::flock(m_file.Get(), LOCK_EX | LOCK_NB) != 0) {
    posix::ThrowErrno("locking a page");
  }
}

void Page::RemoveFile() noexcept {
  if (!m_path.empty() && m_process == ::getpid()) {
    ::unlink(m_path.c_str());
  }
}

Page& Page::OfProcess() {
  static Page* const page = [] {
    auto* const made = new Page({.directory = PageDirectory()});
    if (!made->Fault().empty()) {
      std::fprintf(stderr, "statistics of this process cannot be seen from outside: %s\n", made->Fault().c_str());
    }
    return made;
  }();
  static const struct AtEnd {
    AtEnd() {
      ::pthread_atfork([] { page->m_mutex.lock(); }, [] { page->m_mutex.unlock(); }, [] { page->OnFork(); });
    }
    ~AtEnd() { page->RemoveFile(); }
  } atEnd;
  return *page;
}

// A child does not write its parent's page: its rows go on as memory that nobody sees. The prepared lock is held.
void Page::OnFork() noexcept {
  if (m_memory != nullptr && ::mmap(m_memory, m_bytesMax, PROT_READ | PROT_WRITE,
                                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0) == MAP_FAILED) {
    std::terminate();
  }
  m_file = {};  // or the file would stay locked as long as the child lives
  m_forked = true;
  m_mutex.unlock();
}

// Makes the part of the page usable.
bool Page::Map(std::uint64_t begin, std::uint64_t end) {
  if (end > m_bytesMax || (m_file && end > FileBytesMax())) {
    return false;
  }
  if (!m_file) {
    return ::mprotect(m_memory + begin, end - begin, PROT_READ | PROT_WRITE) == 0;
  }
  return ::mmap(m_memory + begin, end - begin, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, m_file.Get(),
                static_cast<off_t>(begin)) != MAP_FAILED;
}

// Sees to it that the file system has memory for the part: writing to what it has not would end the process.
bool Page::Back(std::uint64_t begin, std::uint64_t end) {
  int error = 0;
  if (m_file) {
    do {
      error = ::posix_fallocate(m_file.Get(), static_cast<off_t>(begin), static_cast<off_t>(end - begin));
    } while (error == EINTR);
  }
  return error == 0;
}

bool Page::GrowIndex(std::uint64_t end) {
  if (end <= m_indexBacked) {
    return true;
  }
  if (!Back(m_indexBacked, m_indexBacked + kMemoryPage)) {
    return false;
  }
  m_indexBacked += kMemoryPage;
  return true;
}

bool Page::GrowHeap(std::uint64_t end) {
  if (end <= m_heapBacked) {
    return true;
  }
  const std::uint64_t wanted = std::min(RoundUp(end, kBackedAtOnce), std::uint64_t{m_bytesMax});
  if (wanted < end || (m_file && wanted > FileBytesMax()) || !Back(m_heapBacked, wanted) ||
      !Map(m_heapBacked, wanted)) {
    return false;
  }
  m_heapBacked = wanted;
  return true;
}

// A block of zeros; its offset is 0 when there is no room.
Page::Block Page::Allocate(std::size_t size) {
  const std::size_t bytes = RoundUp(size, kUnit);
  if (const auto found = m_free.find(bytes); found != m_free.end() && !found->second.empty()) {
    const Block block{found->second.back(), bytes};
    found->second.pop_back();
    std::memset(m_memory + block.offset, 0, bytes);
    return block;
  }
  if (!GrowHeap(m_heapEnd + bytes)) {
    return {};
  }
  const Block block{std::exchange(m_heapEnd, m_heapEnd + bytes), bytes};
  GetHeader().heapEnd.store(m_heapEnd, std::memory_order_release);
  return block;
}

// Null when there is no room for one more.
Page::KnownKind* Page::Known(const Kind& kind) {
  if (const auto found = m_kinds.find(kind.name); found != m_kinds.end()) {
    return found->second->layout.offsets.size() == kind.fields.size() ? found->second.get() : nullptr;
  }
  if (m_kinds.size() == kKindsMax) {
    return nullptr;
  }
  auto known = std::make_unique<KnownKind>(kind);
  known->id = static_cast<std::uint32_t>(m_kinds.size());
  const std::string description = Describe(kind);
  const Block block = Allocate(description.size());
  if (block.offset == 0) {
    return nullptr;
  }
  description.copy(At<char>(block.offset), description.size());
  KnownKind& result = *m_kinds.emplace(kind.name, std::move(known)).first->second;
  // Before any row of it, which readers could not understand.
  GetHeader().kinds[result.id].store(static_cast<std::uint32_t>(block.offset / kUnit), std::memory_order_relaxed);
  GetHeader().kindsUsed.store(m_kinds.size(), std::memory_order_release);
  // Before the first row that is denied, so that there is room for it.
  const std::vector<std::string_view> labels(kind.labels.size(), kOther);
  if (const std::optional<std::uint32_t> other = MakeRow(result.id, result.layout, labels)) {
    result.other = CellsOf(*other);
  }
  return &result;
}

// The index of the new row; none when there is no room.
std::optional<std::uint32_t> Page::MakeRow(std::uint32_t kind, const details::KindLayout& layout,
                                           const std::vector<std::string_view>& labels) {
  std::string text;
  for (const std::string_view label : labels) {
    Append(text, label);
  }
  if (m_freeIndices.empty()) {
    const std::uint64_t end = GetHeader().indexOffset + (m_rows.size() + 1) * sizeof(std::uint64_t);
    if (m_rows.size() == m_rowsMax || !GrowIndex(end)) {
      return std::nullopt;
    }
    m_freeIndices.push_back(static_cast<std::uint32_t>(m_rows.size()));
    m_rows.emplace_back();
    GetHeader().indexUsed.store(m_rows.size(), std::memory_order_release);
  }
  const std::size_t labelsAt = sizeof(RowHeader) + layout.cells * sizeof(details::Cell);
  const Block block = Allocate(labelsAt + text.size());
  if (block.offset == 0) {
    return std::nullopt;
  }
  *At<RowHeader>(block.offset) = {.kind = kind,
                                  .cells = static_cast<std::uint32_t>(layout.cells),
                                  .labelBytes = static_cast<std::uint32_t>(text.size())};
  text.copy(At<char>(block.offset + labelsAt), text.size());
  const std::uint32_t index = m_freeIndices.back();
  m_freeIndices.pop_back();
  m_rows[index] = block;
  Entry(index).store(IndexEntry(++m_lastId, block.offset), std::memory_order_release);
  return index;
}

Page::Place Page::Make(const Kind& kind, std::initializer_list<std::string_view> labels) {
  const std::lock_guard lock(m_mutex);
  if (m_memory == nullptr || m_forked) {
    return {};
  }
  KnownKind* const known = Known(kind);
  if (known != nullptr) {
    std::vector<std::string_view> all(labels);
    all.resize(kind.labels.size());
    if (const std::optional<std::uint32_t> index = MakeRow(known->id, known->layout, all)) {
      return {.cells = CellsOf(*index), .layout = &known->layout, .index = *index};
    }
  }
  GetHeader().rowsInOther.fetch_add(1, std::memory_order_relaxed);
  return known != nullptr ? Place{.cells = known->other, .layout = &known->layout, .other = true} : Place{};
}

void Page::Give(std::uint32_t index) noexcept {
  const std::lock_guard lock(m_mutex);
  if (m_forked) {
    return;
  }
  Entry(index).store(0, std::memory_order_release);
  try {
    const Block block = m_rows[index];
    m_freeIndices.reserve(m_freeIndices.size() + 1);
    m_free[block.bytes].push_back(block.offset);
    m_freeIndices.push_back(index);
  } catch (const std::bad_alloc&) {
    // The place is not used again.
  }
}

details::Cell* Page::CellsOf(std::uint32_t index) const noexcept {
  return At<details::Cell>(m_rows[index].offset + sizeof(RowHeader));
}

Snapshot Page::Take() {
  const std::lock_guard lock(m_mutex);
  if (m_memory == nullptr || m_forked) {
    return {};
  }
  return ReadMemory(m_memory);
}

Snapshot TakeSnapshot() { return Page::OfProcess().Take(); }

}  // namespace zq::statistics
