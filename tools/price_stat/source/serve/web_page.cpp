#include "serve/web_page.h"

namespace price_stat {

// Made of the files in page/.
extern const std::string_view kWebPageTemplate;

std::string WebPage(std::string_view nonce) {
  constexpr std::string_view kMark = "@NONCE@";
  std::string page(kWebPageTemplate);
  for (auto at = page.find(kMark); at != std::string::npos; at = page.find(kMark, at + nonce.size())) {
    page.replace(at, kMark.size(), nonce);
  }
  return page;
}

}  // namespace price_stat
