#include "inspect/text_file.h"

#include <algorithm>

#include "core/failure.h"
#include "core/file_layer.h"
#include "core/text.h"

namespace zul {

bool ReadTextFile(const std::string& path, std::uint64_t max_bytes, std::string* text,
                  std::string* error) {
  const fs::Path place = PathOrEmpty(path);
  std::error_code ec;
  const fs::EntryKind kind = fs::KindOf(place, fs::Links::kFollow, ec);
  if (kind == fs::EntryKind::kNotFound) return Fail(error, "there is no file '" + path + "'");
  if (kind == fs::EntryKind::kDirectory) {
    return Fail(error, "'" + path + "' is a folder, not a file");
  }
  fs::File file = fs::OpenForRead(place, ec);
  std::uint64_t size = 0;
  if (!file.is_open() || !file.Size(&size, ec)) {
    return Fail(error, "cannot read '" + path + "': ", ec);
  }
  if (size == 0) return Fail(error, "'" + path + "' is empty");
  const std::uint64_t begin = size - std::min(size, max_bytes);
  text->resize(static_cast<std::size_t>(size - begin));
  std::size_t read = 0;
  if (!fs::ReadUpTo(file, begin, text->data(), text->size(), &read, ec)) {
    return Fail(error, "cannot read '" + path + "': ", ec);
  }
  text->resize(read);
  if (begin != 0) text->erase(0, text->find('\n') + 1);
  return true;
}

}  // namespace zul
