#include "tests/support/hostile_texts.h"

#include <string_view>

namespace zul::test {

namespace {

std::string Repeated(std::string_view piece, std::size_t size) {
  std::string text;
  while (text.size() < size) text.append(piece);
  text.resize(size);
  return text;
}

/// Each word that introduces a private value, followed by blanks.
std::string KeysAndBlanks() {
  std::string keys;
  for (const char* key :
       {"license_key", "authorization", "--token", "/access-token", "secret_access_key", "job name",
        "file_name", "source-label", "authorization:", "secret=", "operator_name:\n"}) {
    keys += key + std::string(2000, ' ');
  }
  return keys;
}

}  // namespace

std::string OrdinaryLogText(std::size_t size) {
  return Repeated(
      "12:30:05 [INFO ] [updater] download_progress origin_role=primary "
      "bytes_downloaded=1048576 https://dist.example/p.zip C:\\Users\\jan\\a.tif\n",
      size);
}

std::vector<NamedText> HostileTexts(std::size_t size) {
  return {{"one letter", Repeated("s", size)},
          {"alternating separators", Repeated("/-", size)},
          {"dots", Repeated("a.", size)},
          {"at signs", Repeated("@", size)},
          {"addresses that are none", Repeated("a.b@", size)},
          {"URL marks", Repeated("http://", size)},
          {"nested markers", Repeated("[redacted-token:[redacted-path:", size)},
          {"no line ends", Repeated("job_name 5 failed ", size)},
          {"every key and blanks", Repeated(KeysAndBlanks(), size)},
          {"a key and line ends", "job_name:" + Repeated("\n", size - 10) + ","},
          {"names side by side", Repeated("a.png)", size)},
          {"dashes", Repeated("-", size)},
          {"single quotes", Repeated(" '\\", size)},
          {"open values", Repeated("='a'b", size)},
          {"values that stay", Repeated("message='", size)},
          {"blanks before quotes", Repeated(":" + std::string(200, ' ') + "\"", size)},
          {"tiny fields", Repeated("\"a\":\"b\",", size)},
          {"letters of two bytes", Repeated("ž", size / 2 * 2)}};
}

}  // namespace zul::test
