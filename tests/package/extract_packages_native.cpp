// Extracts packages as the updater does. Each line of standard input is an archive and, behind a
// tab, the folder to be made; the line that answers it is empty or says why there is none.

#include <iostream>
#include <string>

#include "core/text.h"
#include "package/extract.h"

int main() {
  for (std::string line; std::getline(std::cin, line);) {
    const std::size_t tab = line.find('\t');
    if (tab == std::string::npos) return 2;
    const auto archive = zul::PathFromUtf8(line.substr(0, tab));
    const auto destination = zul::PathFromUtf8(line.substr(tab + 1));
    if (!archive || !destination) return 2;
    std::string error;
    if (!zul::ExtractPackage(*archive, *destination, &error) && error.empty()) return 1;
    std::cout << error << std::endl;
  }
  return 0;
}
