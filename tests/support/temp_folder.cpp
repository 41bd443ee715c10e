#include "tests/support/temp_folder.h"

#include <atomic>
#include <set>
#include <sstream>
#include <stdexcept>

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

}  // namespace

TempFolder::TempFolder() {
  static std::atomic<unsigned> counter{0};
  std::error_code ec;
  const std::string name = "qorva-test-" + std::to_string(CurrentProcessId()) + "-" +
                           std::to_string(counter++) + "-" + std::to_string(PerformanceCounter());
  // Resolved, so that a test can compare paths with what the code under test resolved.
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
  std::error_code ec;
  fs::File file = fs::OpenForRead(path, ec);
  if (!file.is_open()) Fail("cannot open", path, ec);
  std::string contents;
  std::string buffer(65536, '\0');
  for (std::size_t read = 1; read > 0; contents.append(buffer, 0, read)) {
    if (!file.Read(buffer.data(), buffer.size(), &read, ec)) Fail("cannot read", path, ec);
  }
  return contents;
}

bool Exists(const fs::Path& path) {
  std::error_code ec;
  return fs::KindOf(path, fs::Links::kDoNotFollow, ec) != fs::EntryKind::kNotFound;
}

std::string ListTree(const fs::Path& root) {
  std::set<std::string> lines;
  fs::TreeWalker walker(root);
  fs::DirectoryEntry entry;
  std::error_code ec;
  while (walker.Next(&entry, ec)) {
    lines.insert(PathToGenericUtf8(entry.path.lexically_relative(root)) +
                 (entry.kind == fs::EntryKind::kDirectory ? "/" : ""));
  }
  if (ec) Fail("cannot list", root, ec);
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

Files FilesBelow(const fs::Path& root) {
  Files files;
  std::istringstream lines(Exists(root) ? ListTree(root) : std::string());
  for (std::string line; std::getline(lines, line);) {
    if (!line.ends_with('/')) files[line] = ReadFile(root / FromUtf8(line));
  }
  return files;
}

}  // namespace zul::test
