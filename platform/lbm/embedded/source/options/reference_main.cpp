// Prints the options' reference page.
#include <iostream>

#include "options/reference_page.h"

int main() {
  std::cout << engine::ReferencePage() << std::flush;
  return std::cout ? 0 : 1;
}
