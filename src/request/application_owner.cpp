#include "request/application_owner.h"

#include <algorithm>
#include <array>

#include "core/file_layer.h"
#include "core/text.h"

namespace zul {

namespace {

/// The text of a path for a comparison without the disk. Letter case is ignored, because on Windows
/// two spellings in different case name the same folder.
std::string LexicalKey(const fs::Path& path) {
  std::string key = AsciiLower(PathToGenericUtf8(path.lexically_normal()));
  while (key.size() > 1 && key.back() == '/') key.pop_back();
  return key;
}

bool IsSameFolder(const fs::Path& a, const fs::Path& b) {
  std::error_code ec_a;
  std::error_code ec_b;
  const fs::Path real_a = fs::WeaklyCanonical(a, ec_a);
  const fs::Path real_b = fs::WeaklyCanonical(b, ec_b);
  if (ec_a || ec_b) return LexicalKey(a) == LexicalKey(b);
  return real_a == real_b;
}

}  // namespace

std::string_view FileNameOf(std::string_view path_text) {
  const std::size_t last = path_text.find_last_of("\\/");
  return last == std::string_view::npos ? path_text : path_text.substr(last + 1);
}

bool IsApplicationImageName(std::string_view file_name) {
  constexpr std::array<std::string_view, 4> kNames = {"qorva_gui.exe", "qorva.exe",
                                                      "zul_rip_gui.exe", "zul_rip.exe"};
  return std::find(kNames.begin(), kNames.end(), AsciiLower(file_name)) != kNames.end();
}

bool IsApplicationOwner(const ProcessEntry& process, const fs::Path& target_dir) {
  if (!process.image_path) return IsApplicationImageName(process.name);
  return IsApplicationImageName(FileNameOf(PathToUtf8(*process.image_path))) &&
         IsSameFolder(process.image_path->parent_path(), target_dir);
}

}  // namespace zul
