#include "tests/support/temp_folder.h"

#include <atomic>
#include <set>
#include <stdexcept>

#include "core/bounded_read.h"
#include "core/process_environment.h"
#include "core/system_error.h"
#include "core/text.h"
#include "tests/support/file_tricks.h"

namespace zul::test {

namespace {

fs::Path FromUtf8(std::string_view text) {
  return PathFromUtf8(text).value();
}

[[noreturn]] void Fail(const char* what, const fs::Path& path, const std::error_code& ec) {
  throw std::runtime_error(std::string(what) + " '" + PathToUtf8(path) +
                           "': " + SystemErrorText(ec));
}

/// Calls `visit(relative path, entry)` for each entry of the tree.
template <typename Visit>
void ForEachBelow(const fs::Path& root, Visit visit) {
  fs::TreeWalker walker(root);
  fs::DirectoryEntry entry;
  std::error_code ec;
  while (walker.Next(&entry, ec)) {
    visit(PathToGenericUtf8(entry.path.lexically_relative(root)), entry);
  }
  if (ec) Fail("cannot list", root, ec);
}

}  // namespace

TempFolder::TempFolder() {
  static std::atomic<unsigned> counter{0};
  std::error_code ec;
  const std::string name = "qorva-test-" + std::to_string(CurrentProcessId()) + "-" +
                           std::to_string(counter++) + "-" + std::to_string(PerformanceCounter());
  // Resolved, so that a test can compare its paths with resolved paths of the product.
  path_ = fs::Canonical(TempDirectory(), ec) / FromUtf8(name);
  if (ec || !fs::CreateDirectories(path_, ec)) Fail("cannot create", path_, ec);
}

TempFolder::~TempFolder() {
  std::error_code ec;
  if (!fs::RemoveTree(path_, ec)) RemoveHostTree(path_);
}

fs::Path TempFolder::operator/(std::string_view relative) const {
  return path_ / FromUtf8(relative);
}

void WriteFile(const fs::Path& path, std::string_view contents) {
  std::error_code ec;
  if (!fs::CreateDirectories(path.parent_path(), ec)) Fail("cannot create", path.parent_path(), ec);
  fs::File file = fs::CreateTruncatedFile(path, ec);
  if (!file.is_open() || !fs::WriteAll(file, contents.data(), contents.size(), ec) ||
      !file.Close(ec)) {
    Fail("cannot write", path, ec);
  }
}

std::string ReadFile(const fs::Path& path) {
  std::string contents;
  const BoundedReadResult result = ReadBounded(PathToUtf8(path), 0, &contents);
  if (result.status == kBoundedReadOk) return contents;
  throw std::runtime_error("cannot read '" + PathToUtf8(path) + "': " + result.message);
}

bool Exists(const fs::Path& path) {
  std::error_code ec;
  return fs::KindOf(path, fs::Links::kDoNotFollow, ec) != fs::EntryKind::kNotFound;
}

std::string ListTree(const fs::Path& root) {
  std::set<std::string> lines;
  ForEachBelow(root, [&](const std::string& relative, const fs::DirectoryEntry& entry) {
    lines.insert(relative + (entry.kind == fs::EntryKind::kDirectory ? "/\n" : "\n"));
  });
  return JoinText(lines, "");
}

Files FilesBelow(const fs::Path& root) {
  Files files;
  if (!Exists(root)) return files;
  ForEachBelow(root, [&](const std::string& relative, const fs::DirectoryEntry& entry) {
    if (entry.kind != fs::EntryKind::kDirectory) files[relative] = ReadFile(entry.path);
  });
  return files;
}

}  // namespace zul::test
