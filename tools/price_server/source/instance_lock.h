// One process for each server instance.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

#include "zq/posix/descriptor.h"

namespace price_server {

// Another process holds the lock; the text says which.
class InstanceRunning : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A lock that the operating system takes back when the process ends, however it ends. Its file, which holds the process
// number for people, stays behind after a kill and means nothing then.
class InstanceLock {
 public:
  // name identifies the instance within the directory. Throws InstanceRunning, or std::system_error when the file
  // cannot be used.
  InstanceLock(const std::filesystem::path& directory, const std::string& name);
  ~InstanceLock();
  InstanceLock(const InstanceLock&) = delete;
  InstanceLock& operator=(const InstanceLock&) = delete;

 private:
  std::filesystem::path m_path;
  zq::posix::Descriptor m_file;
};

}  // namespace price_server
