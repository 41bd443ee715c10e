// Extracts packages as the updater does. Each line of standard input has the path of an archive, a
// tab, and the path of the folder to create. The answer is a line with the message of the failure,
// which is empty after a success. All text is UTF-8.

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
