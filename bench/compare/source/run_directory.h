// A directory for one run.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace compare {

// Empty at first, gone with the object. It is made in $TMPDIR, which should be in memory: contenders may keep what they
// share there.
class RunDirectory {
 public:
  RunDirectory() {
    std::string pattern = std::filesystem::temp_directory_path() / "compare-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), "cannot make the directory " + pattern);
    }
    m_path = pattern;
  }
  ~RunDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  RunDirectory(const RunDirectory&) = delete;
  RunDirectory& operator=(const RunDirectory&) = delete;

  const std::filesystem::path& path() const { return m_path; }

 private:
  std::filesystem::path m_path;
};

}  // namespace compare
