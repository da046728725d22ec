// The page that browsers get.
#pragma once

#include <string>
#include <string_view>

namespace price_stat {

// One document with everything that it needs. nonce: letters and digits, by which the policy that goes with the page
// tells its scripts and styles from others.
std::string WebPage(std::string_view nonce);

}  // namespace price_stat
