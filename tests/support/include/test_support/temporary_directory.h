// A place for a test's files.
#pragma once

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

namespace test_support {

// A new empty directory of mode 0700, removed with everything in it at the end. Throws std::system_error when it cannot
// be made.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = std::filesystem::temp_directory_path() / "price_connector-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), "cannot make a directory like " + pattern);
    }
    m_path = pattern;
  }

  ~TemporaryDirectory() {
    // Somebody else may be taking a file away at this moment.
    std::error_code error;
    do {
      std::filesystem::remove_all(m_path, error);
    } while (error == std::errc::no_such_file_or_directory);
  }

  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& Path() const noexcept { return m_path; }

 private:
  std::filesystem::path m_path;
};

}  // namespace test_support
