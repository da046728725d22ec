#include "xml_check.h"

#include <algorithm>
#include <set>
#include <vector>

namespace ps_ns {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kBlanks = " \t\r\n";

bool StartsName(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' ||
         static_cast<unsigned char>(c) >= 0x80;
}

bool ContinuesName(char c) { return StartsName(c) || (c >= '0' && c <= '9') || c == '-' || c == '.'; }

std::string Tag(std::string_view name) { return '<' + std::string(name) + '>'; }

class Checker {
 public:
  Checker(std::string_view text, std::string_view expectedRoot, std::size_t maxNesting)
      : m_text(text), m_expectedRoot(expectedRoot), m_maxNesting(maxNesting) {}

  std::string Run() {
    if (const auto zero = m_text.find('\0'); zero != std::string_view::npos) {
      FailAt(zero, "not XML text: it contains a zero byte. Save it as UTF-8");
    }
    Skip(kByteOrderMark);
    while (m_position < m_text.size()) {
      if (Skip("<!--")) {
        SkipPast("-->", "comment");
      } else if (Skip("<?")) {
        SkipPast("?>", "processing instruction");
      } else if (Skip("<![CDATA[")) {
        RequireInsideRoot();
        SkipPast("]]>", "CDATA section");
      } else if (Skip("<!")) {
        Fail("declarations such as DOCTYPE are not supported. Remove it and write out what it declares");
      } else if (Skip("</")) {
        EndTag();
      } else if (Skip("<")) {
        StartTag();
      } else {
        CharacterData();
      }
    }
    if (!m_open.empty()) {
      FailAt(m_open.back().position, "element " + Tag(m_open.back().name) + " is never closed. Add its end tag");
    }
    if (m_root.empty()) {
      Fail("the file is empty. It needs one root element" +
           (m_expectedRoot.empty() ? std::string() : ", " + Tag(m_expectedRoot)));
    }
    return std::string(m_root);
  }

 private:
  struct Element {
    std::string_view name;
    std::size_t position;
  };

  [[noreturn]] void FailAt(std::size_t position, const std::string& what) const {
    const auto lines = std::count(m_text.begin(), m_text.begin() + static_cast<std::ptrdiff_t>(position), '\n');
    throw XmlFault(1 + static_cast<std::size_t>(lines), what);
  }
  [[noreturn]] void Fail(const std::string& what) const { FailAt(m_start, what); }

  // Moves over expected and remembers where it stood, for error texts.
  bool Skip(std::string_view expected) {
    if (m_text.substr(m_position, expected.size()) != expected) {
      return false;
    }
    m_start = m_position;
    m_position += expected.size();
    return true;
  }

  void SkipPast(std::string_view end, const char* what) {
    const auto found = m_text.find(end, m_position);
    if (found == std::string_view::npos) {
      Fail(std::string(what) + " is never closed. End it with " + std::string(end));
    }
    m_position = found + end.size();
  }

  bool SkipBlanks() {
    const auto before = m_position;
    m_position = std::min(m_text.find_first_not_of(kBlanks, m_position), m_text.size());
    return m_position != before;
  }

  char Current() const { return m_position < m_text.size() ? m_text[m_position] : '\0'; }

  std::string_view Name() {
    const auto begin = m_position;
    if (StartsName(Current())) {
      while (ContinuesName(Current())) {
        ++m_position;
      }
    }
    return m_text.substr(begin, m_position - begin);
  }

  void RequireInsideRoot() const {
    if (m_open.empty()) {
      FailAt(m_position, m_root.empty() ? "not XML: text before the root element. The first thing must be a tag"
                                        : "text after the root element. Remove it or move it inside");
    }
  }

  void CharacterData() {
    SkipBlanks();
    if (m_position < m_text.size() && m_text[m_position] != '<') {
      RequireInsideRoot();
      m_position = std::min(m_text.find('<', m_position), m_text.size());
    }
  }

  void StartTag() {
    const auto name = Name();
    if (name.empty()) {
      Fail("'<' without an element name. Write &lt; for the character itself");
    }
    if (m_open.empty()) {
      Root(name);
    }
    if (m_open.size() == m_maxNesting) {
      Fail("elements are nested more than " + std::to_string(m_maxNesting) + " deep. Make the structure flatter");
    }
    Attributes(name);
    if (Current() == '/') {
      ++m_position;
    } else {
      m_open.push_back({name, m_start});
    }
    if (Current() != '>') {
      Fail("the start tag of " + Tag(name) + " is not well-formed. Attributes are written name=\"value\"");
    }
    ++m_position;
  }

  void Root(std::string_view name) {
    if (!m_root.empty()) {
      Fail("second root element " + Tag(name) + ". Only one is allowed: put both inside one element");
    }
    if (!m_expectedRoot.empty() && name != m_expectedRoot) {
      Fail("the root element is " + Tag(name) + " but must be " + Tag(m_expectedRoot) +
           ". Rename it, or give the right file");
    }
    m_root = name;
  }

  // Stops before what is not an attribute.
  void Attributes(std::string_view element) {
    m_attributes.clear();
    while (SkipBlanks() && StartsName(Current())) {
      const auto attribute = Name();
      SkipBlanks();
      if (Current() != '=') {
        return;
      }
      ++m_position;
      SkipBlanks();
      const char quote = Current();
      if (quote != '"' && quote != '\'') {
        return;
      }
      const auto end = m_text.find(quote, m_position + 1);
      if (end == std::string_view::npos) {
        FailAt(m_position,
               "the value of attribute " + std::string(attribute) + " is never closed. End it with " + quote);
      }
      m_position = end + 1;
      if (!m_attributes.insert(attribute).second) {
        Fail("element " + Tag(element) + " has attribute " + std::string(attribute) + " twice. Keep one");
      }
    }
  }

  void EndTag() {
    const auto name = Name();
    SkipBlanks();
    if (name.empty() || Current() != '>') {
      Fail("end tag that is not well-formed. It is written </name>");
    }
    ++m_position;
    if (m_open.empty()) {
      Fail("end tag of " + Tag(name) + " without a start tag. Remove it");
    }
    if (name != m_open.back().name) {
      Fail("end tag of " + Tag(name) + " where " + Tag(m_open.back().name) + " is open. Close that one first");
    }
    m_open.pop_back();
  }

  const std::string_view m_text;
  const std::string_view m_expectedRoot;
  const std::size_t m_maxNesting;
  std::size_t m_position = 0;
  std::size_t m_start = 0;
  std::string_view m_root;
  std::vector<Element> m_open;
  std::set<std::string_view> m_attributes;
};

}  // namespace

std::string CheckXml(std::string_view text, const std::string& expectedRoot, std::size_t maxNesting) {
  return Checker(text, expectedRoot, maxNesting).Run();
}

}  // namespace ps_ns
