// Named log sources.
#pragma once

#include <memory>
#include <string>
#include <utility>

#pragma GCC visibility push(default)

namespace zq::logging {

class Source;

// An empty pointer means "no source".
using ConstSourcePtr = std::shared_ptr<const Source>;

// A named origin of log statements, possibly below a parent. Immutable after construction.
class Source {
 public:
  explicit Source(std::string name, ConstSourcePtr parent = {})
      : m_name(std::move(name)), m_parent(std::move(parent)) {}

  const std::string& Name() const noexcept { return m_name; }
  const ConstSourcePtr& Parent() const noexcept { return m_parent; }

  // The path from this source up to its outermost parent, names separated by dots: "leaf.middle.root".
  std::string Reverse() const { return m_parent ? m_name + '.' + m_parent->Reverse() : m_name; }

 private:
  std::string m_name;
  ConstSourcePtr m_parent;
};

}  // namespace zq::logging

#pragma GCC visibility pop
