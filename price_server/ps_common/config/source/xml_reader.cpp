#include "xml_reader.h"

#include <expat.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <new>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace ps_ns {
namespace {

namespace pt = boost::property_tree;

std::string Tag(std::string_view name) { return '<' + std::string(name) + '>'; }

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool IsPrintable(char c) { return c >= ' ' && c <= '~'; }

class Reader {
 public:
  Reader(const std::string& text, const std::string& expectedRoot, std::size_t maxNesting)
      : m_text(text),
        m_expectedRoot(expectedRoot),
        m_maxNesting(maxNesting),
        m_parser(XML_ParserCreate(nullptr), &XML_ParserFree) {
    if (m_parser == nullptr) {
      throw std::bad_alloc();
    }
    XML_Parser parser = m_parser.get();
    XML_SetUserData(parser, this);
    XML_SetElementHandler(parser, &Handle<&Reader::StartElement>, &Handle<&Reader::EndElement>);
    XML_SetCharacterDataHandler(parser, &Handle<&Reader::Characters>);
    XML_SetCdataSectionHandler(parser, &Handle<&Reader::StartCdata>, &Handle<&Reader::EndCdata>);
    XML_SetCommentHandler(parser, &Handle<&Reader::Comment>);
    XML_SetProcessingInstructionHandler(parser, &Handle<&Reader::ProcessingInstruction>);
    XML_SetStartDoctypeDeclHandler(parser, &Handle<&Reader::StartDoctype>);
  }

  XmlDocument Run() {
    // UTF-16 is known by its zero bytes; elsewhere they are no characters.
    if (const auto zero = std::find(m_text.begin(), m_text.end(), '\0'); zero != m_text.end()) {
      throw XmlFault(1 + static_cast<std::size_t>(std::count(m_text.begin(), zero, '\n')),
                     "not XML text: it contains a zero byte. Save it as UTF-8");
    }
    const auto status = XML_Parse(m_parser.get(), m_text.data(), static_cast<int>(m_text.size()), XML_TRUE);
    if (m_failure) {
      std::rethrow_exception(m_failure);
    }
    if (status != XML_STATUS_OK) {
      FailAsParsed();
    }
    XmlDocument document;
    document.tree.swap(m_tree);  // a tree cannot be moved
    document.lines = std::move(m_lines);
    return document;
  }

 private:
  struct Element {
    std::string name;
    std::size_t line;
    pt::ptree* node;
  };

  // The parser's callback for a member function. An exception must not cross the parser: it ends the parsing.
  template <auto Member, class... Arguments>
  static void Handle(void* self, Arguments... arguments) {
    auto& reader = *static_cast<Reader*>(self);
    if (reader.m_failure) {
      return;
    }
    try {
      (reader.*Member)(arguments...);
    } catch (...) {
      reader.m_failure = std::current_exception();
      XML_StopParser(reader.m_parser.get(), XML_FALSE);
    }
  }

  void StartElement(const XML_Char* name, const XML_Char** attributes) {
    EndSegment();
    if (m_open.empty() && !m_expectedRoot.empty() && name != m_expectedRoot) {
      Fail("the root element is " + Tag(name) + " but must be " + Tag(m_expectedRoot) +
           ". Rename it, or give the right file");
    }
    if (m_open.size() == m_maxNesting) {
      Fail("elements are nested more than " + std::to_string(m_maxNesting) + " deep. Make the structure flatter");
    }
    pt::ptree& parent = m_open.empty() ? m_tree : *m_open.back().node;
    pt::ptree& node = parent.push_back({name, {}})->second;
    if (*attributes != nullptr) {
      pt::ptree& values = node.push_back({"<xmlattr>", {}})->second;
      for (; *attributes != nullptr; attributes += 2) {
        values.push_back({attributes[0], pt::ptree(attributes[1])});
      }
    }
    m_lines.push_back(Line());
    m_open.push_back({name, Line(), &node});
  }

  void EndElement(const XML_Char*) {
    EndSegment();
    m_open.pop_back();
  }

  // Text comes in pieces of the parser's choosing; a reference is always a piece of its own.
  void Characters(const XML_Char* data, int length) {
    const std::string_view piece(data, static_cast<std::size_t>(length));
    std::string& text = m_open.back().node->data();
    const bool asItIs = m_cdataLine != 0 || Here().substr(0, 1) == "&";
    for (const char c : piece) {
      if (!asItIs && IsBlank(c)) {
        m_blankBefore = m_inSegment;
        continue;
      }
      if (std::exchange(m_blankBefore, false)) {
        text += ' ';
      }
      text += c;
      m_inSegment = true;
    }
  }

  void EndSegment() { m_inSegment = m_blankBefore = false; }

  void StartCdata() {
    EndSegment();
    m_cdataLine = Line();
  }
  void EndCdata() {
    EndSegment();
    m_cdataLine = 0;
  }
  void Comment(const XML_Char*) { EndSegment(); }
  void ProcessingInstruction(const XML_Char*, const XML_Char*) { EndSegment(); }

  void StartDoctype(const XML_Char*, const XML_Char*, const XML_Char*, int) {
    Fail("a document type declaration (DOCTYPE) is not supported. Remove it and write out what it declares");
  }

  std::size_t Line() const { return XML_GetCurrentLineNumber(m_parser.get()); }

  // The text from where the parser stands.
  std::string_view Here() const {
    const auto index = XML_GetCurrentByteIndex(m_parser.get());
    return std::string_view(m_text).substr(index < 0 ? m_text.size() : static_cast<std::size_t>(index));
  }

  // The beginning of it, for error texts.
  std::string Excerpt() const {
    constexpr std::size_t kLongest = 30;
    const std::string_view here = Here().substr(0, kLongest);
    return '"' + std::string(here.begin(), std::find_if_not(here.begin(), here.end(), IsPrintable)) + '"';
  }

  std::string NameHere() const { return std::string(Here().substr(0, Here().find_first_of(" \t\r\n=/>"))); }

  [[noreturn]] void Fail(const std::string& what) const { throw XmlFault(Line(), what); }

  [[noreturn]] void FailAsParsed() const {
    const auto code = XML_GetErrorCode(m_parser.get());
    switch (code) {
      case XML_ERROR_NO_MEMORY:
        throw std::bad_alloc();
      case XML_ERROR_NO_ELEMENTS:
        if (!m_open.empty()) {
          throw XmlFault(m_open.back().line,
                         "element " + Tag(m_open.back().name) + " is never closed. Add its end tag");
        }
        Fail("the file is empty. It needs one root element" +
             (m_expectedRoot.empty() ? std::string() : ", " + Tag(m_expectedRoot)));
      case XML_ERROR_TAG_MISMATCH:
        Fail("end tag of " + Tag(NameHere()) + " where " + Tag(m_open.back().name) + " of line " +
             std::to_string(m_open.back().line) + " is open. Close that one first");
      case XML_ERROR_DUPLICATE_ATTRIBUTE:
        Fail("an element has attribute " + NameHere() + " twice. Keep one");
      case XML_ERROR_JUNK_AFTER_DOC_ELEMENT:
        Fail(Excerpt() + " after the end of the root element. Remove it or move it inside");
      case XML_ERROR_UNCLOSED_TOKEN:
        Fail("the tag, comment or processing instruction " + Excerpt() + " is never closed");
      case XML_ERROR_UNCLOSED_CDATA_SECTION:
        throw XmlFault(m_cdataLine, "CDATA section is never closed. End it with ]]>");
      case XML_ERROR_UNDEFINED_ENTITY:
        Fail(Excerpt() + ": there is no such entity, only &lt; &gt; &amp; &quot; &apos; and numbers such as &#8364;");
      case XML_ERROR_MISPLACED_XML_PI:
        Fail("the XML declaration is not the first thing in the file. Remove what stands before it");
      case XML_ERROR_UNKNOWN_ENCODING:
      case XML_ERROR_INCORRECT_ENCODING:
        Fail("the encoding that it declares is unknown, or is not the one that it has. Save it as UTF-8");
      default:
        break;
    }
    const char here = Here().empty() ? ' ' : Here().front();
    if (!IsPrintable(here) && !IsBlank(here)) {
      Fail("not XML text: it contains a byte that is no character of its encoding. Save it as UTF-8");
    }
    if (here == '/' && m_tree.empty()) {
      Fail("end tag without a start tag. Remove it");
    }
    Fail(std::string(XML_ErrorString(code)) + " at " + Excerpt() +
         ". Attributes are written name=\"value\", and the character < in texts and values &lt;");
  }

  const std::string& m_text;
  const std::string& m_expectedRoot;
  const std::size_t m_maxNesting;
  const std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> m_parser;
  pt::ptree m_tree;
  std::vector<std::size_t> m_lines;
  std::vector<Element> m_open;
  std::size_t m_cdataLine = 0;  // where the CDATA section began; 0 outside of one
  bool m_inSegment = false;     // there is text since the last tag, comment, processing instruction or CDATA section
  bool m_blankBefore = false;   // and blanks behind it, which count when more text comes
  std::exception_ptr m_failure;
};

}  // namespace

XmlDocument ReadXml(const std::string& text, const std::string& expectedRoot, std::size_t maxNesting) {
  return Reader(text, expectedRoot, maxNesting).Run();
}

}  // namespace ps_ns
