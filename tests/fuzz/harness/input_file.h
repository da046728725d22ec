// Files with what a fuzzer makes up.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <string>
#include <string_view>

#include "test_support/temporary_directory.h"
#include "zq/posix/descriptor.h"
#include "zq/posix/file.h"

namespace fuzz {

// One file, which is written anew for each input.
class InputFile {
 public:
  const std::string& With(std::string_view content) const {
    const zq::posix::Descriptor file(
        ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR));
    zq::posix::WriteAll(file.Get(), content);
    return m_path;
  }

 private:
  const test_support::TemporaryDirectory m_directory;
  const std::string m_path = m_directory.Path() / "input";
};

}  // namespace fuzz
