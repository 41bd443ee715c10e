#include "request/application_owner.h"

#include <string_view>

#include "core/file_layer.h"
#include "core/text.h"
#include "request/path_text.h"

namespace zul {

namespace {

/// A path's text for a comparison that may not ask the disk. Letter case is ignored, as the
/// systems that we run on do: there the same folder may be spelt in either.
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

bool IsApplicationOwner(const ProcessEntry& process, const fs::Path& target_dir) {
  if (!process.image_path) return IsApplicationImageName(process.name);
  return IsApplicationImageName(FileNameOf(PathToUtf8(*process.image_path))) &&
         IsSameFolder(process.image_path->parent_path(), target_dir);
}

}  // namespace zul
