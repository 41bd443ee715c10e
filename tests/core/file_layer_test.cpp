#include "core/file_layer.h"

#include <gtest/gtest.h>

#include "core/lock_file.h"
#include "core/system_error.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul::fs {
namespace {

using test::kOnWindows;
using test::ListTree;
using test::MakeLink;
using test::ReadFile;
using test::RunsUnderWine;
using test::WriteFile;

/// A new folder for each test, and another one as a target of links.
class FileLayer : public testing::Test {
 protected:
  void Write(std::initializer_list<const char*> files) {
    for (const char* file : files) WriteFile(folder / file, "x");
  }
  bool Link(const Path& target, const char* link) { return MakeLink(target, folder / link); }

  const test::TempFolder folder;
  const test::TempFolder outside;
  std::error_code ec;
};

#define REQUIRE_LINKS(...) \
  if (!(__VA_ARGS__)) GTEST_SKIP() << test::kNoLinks

TEST_F(FileLayer, ReadsAtAnyOffsetOfAFile) {
  WriteFile(folder / "file", "0123456789");
  File file = OpenForRead(folder / "file", ec);
  const std::pair<std::uint64_t, const char*> cases[] = {
      {6, "678"}, {0, "012"}, {8, "89"}, {10, ""}, {(std::uint64_t{1} << 32) + 1, ""}};
  for (const auto& [offset_bytes, expected] : cases) {
    char buffer[3];
    std::size_t read = 0;
    EXPECT_TRUE(file.ReadAt(offset_bytes, buffer, sizeof buffer, &read, ec)) << ec;
    EXPECT_EQ(std::string(buffer, read), expected) << offset_bytes;
  }
}

TEST_F(FileLayer, HasOneHolderOfALockFileAndLeavesNothing) {
  Write({"left by a power failure"});
  const Path path = folder / "left by a power failure";
  LockFile first, second;
  EXPECT_EQ(first.Take(path, ec), LockFile::Result::kTaken) << ec;
  EXPECT_EQ(second.Take(path, ec), LockFile::Result::kHeld);
  first.Release();
  EXPECT_FALSE(test::Exists(path));
}

TEST_F(FileLayer, ReportsTheKindOfAPathWithAndWithoutItsLinks) {
  Write({"file", "dir/inner"});
  REQUIRE_LINKS(Link("file", "to_file") && Link("dir", "to_dir") && Link("nowhere", "dangling"));
  const bool wine = RunsUnderWine();
  using enum EntryKind;
  const struct {
    const char* path;
    EntryKind followed;
    EntryKind itself;
    PathProbe::Kind probe = PathProbe::kMissing;
  } cases[] = {
      {"file", kRegular, kRegular, PathProbe::kExists},
      {"dir/", kDirectory, kDirectory, PathProbe::kExists},
      {"missing/below", kNotFound, kNotFound},
      {"file/below", kNotFound, kNotFound},
      {"to_dir", kDirectory, kLink, PathProbe::kExists},
      // Wine shows a link to a file as the file and does not show a dangling link.
      {"to_file", kRegular, wine ? kRegular : kLink, PathProbe::kExists},
      {"dangling", kNotFound, wine ? kNotFound : kLink,
       wine ? PathProbe::kMissing : PathProbe::kUnresolvedReparsePoint},
      {"dangling/below", kNotFound, kNotFound},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    ec = SystemError(1);
    EXPECT_EQ(KindOf(folder / c.path, Links::kFollow, ec), c.followed);
    EXPECT_FALSE(ec) << ec;
    EXPECT_EQ(KindOf(folder / c.path, Links::kDoNotFollow, ec), c.itself);
    EXPECT_EQ(Exists(folder / c.path), c.followed != kNotFound);
    EXPECT_EQ(IsRegularFile(folder / c.path), c.followed == kRegular);
    const PathProbe probe = ProbePath(folder / c.path);
    EXPECT_EQ(probe.kind, c.probe);
    EXPECT_EQ(probe.is_directory, c.followed == kDirectory);
    EXPECT_EQ(IsNotFoundError(probe.system_error), c.probe == PathProbe::kMissing);
  }
}

TEST_F(FileLayer, WeaklyCanonicalResolvesWhatExistsAndAppendsTheRest) {
  Write({"dir/file"});
  WriteFile(outside / "secret", "x");
  REQUIRE_LINKS(Link(outside.path(), "dir/out") && Link("dir", "to_dir") &&
                Link("nowhere", "dangling"));
  const Path& inside = folder.path();
  const Path& out = outside.path();
  const std::pair<const char*, Path> cases[] = {
      {"./dir/.//../dir/file", inside / "dir" / "file"},
      {"dir/new/deep.txt", inside / "dir" / "new" / "deep.txt"},
      {"new/", inside / "new"},
      {"dir/file/below", inside / "dir" / "file" / "below"},
      {"to_dir/out/new/x", out / "new" / "x"},
      // ".." after a missing name must not hide a link.
      {"dir/new/../out/secret", out / "secret"},
      {"dangling/x", inside / "dangling" / "x"},
  };
  for (const auto& [path, expected] : cases) {
    ec = SystemError(1);
    EXPECT_EQ(WeaklyCanonical(folder / path, ec), expected) << path;
    EXPECT_FALSE(ec) << path << ec;
  }
  EXPECT_EQ(WeaklyCanonical("no-such-name/x", ec), CurrentDirectory(ec) / "no-such-name" / "x");
  EXPECT_TRUE(WeaklyCanonical("", ec).empty() && ec);
  EXPECT_TRUE(!kOnWindows || WeaklyCanonical(folder / "DIR/FILE", ec) == inside / "dir" / "file");
}

TEST_F(FileLayer, WalksATreeAndNeverEntersALink) {
  WriteFile(outside / "secret", "x");
  Write({"t/a/b/2", "t/3"});
  REQUIRE_LINKS(Link(outside.path(), "t/a/out") && Link("..", "t/a/up"));
  EXPECT_EQ(ListTree(folder / "t"), "3\na/\na/b/\na/b/2\na/out\na/up\n");
  DirectoryEntry entry;
  for (const Path& bad : {folder / "missing", folder / "t/3", Path()}) {
    TreeWalker none(bad);
    EXPECT_FALSE(none.Next(&entry, ec));
    EXPECT_TRUE(ec) << bad;
    EXPECT_TRUE(ListDirectory(bad, ec).empty());
    EXPECT_TRUE(ec) << bad;
  }
}

TEST_F(FileLayer, MovesReplaceAnExistingTargetOrRefuseIt) {
  const struct {
    const char* name;
    bool (*move)(const Path&, const Path&, std::error_code&);
    bool replaces;
  } moves[] = {{"Rename", Rename, false},
               {"MoveToNewName", MoveToNewName, false},
               {"MoveReplacing", MoveReplacing, true},
               {"MoveReplacingWhole", MoveReplacingWhole, true}};
  for (const auto& m : moves) {
    SCOPED_TRACE(m.name);
    const Path base = folder / m.name;
    WriteFile(base / "from", "from");
    WriteFile(base / "to", "to");
    WriteFile(base / "dir/kept", "x");
    EXPECT_TRUE(m.move(base / "from", base / "moved", ec)) << ec;
    EXPECT_FALSE(m.move(base / "from", base / "again", ec));
    EXPECT_TRUE(IsNotFoundError(ec)) << ec;
    EXPECT_FALSE(m.move(base / "moved", base / "dir", ec));
    EXPECT_EQ(m.move(base / "moved", base / "to", ec), m.replaces);
    EXPECT_EQ(IsExistsError(ec), !m.replaces) << ec;
    EXPECT_EQ(ReadFile(base / "to"), m.replaces ? "from" : "to");
    EXPECT_EQ(ListTree(base), m.replaces ? "dir/\ndir/kept\nto\n" : "dir/\ndir/kept\nmoved\nto\n");
  }
}

TEST_F(FileLayer, CopiesContentsTimeAndAttributesAndCallsBack) {
  std::string large((std::size_t{5} << 20) / 2, '\0');
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7 + i / 4096);
  int calls = 0;
  const KeepAlive count = [&calls] { ++calls; };
  for (const std::string& contents : {std::string(), std::string("abc"), large}) {
    const std::string name = std::to_string(contents.size());
    WriteFile(folder / ("from" + name), contents);
    EXPECT_TRUE(CopyFileDurably(folder / ("from" + name), folder / name, ec, count)) << ec;
    EXPECT_TRUE(ReadFile(folder / name) == contents) << name;
    EXPECT_TRUE(contents == large ? calls >= 2 : calls == 0) << calls;
  }
  EXPECT_FALSE(CopyFileDurably(folder / "from3", folder / "0", ec));
  EXPECT_TRUE(IsExistsError(ec)) << ec;
  EXPECT_EQ(ReadFile(folder / "0"), "");
  test::MakeOlder(folder / "from3", std::chrono::hours(50));
  test::MakeReadOnly(folder / "from3");
  EXPECT_TRUE(CopyFileDurably(folder / "from3", folder / "alike", ec)) << ec;
  const auto permissions = std::filesystem::status(folder / "alike").permissions();
  EXPECT_EQ(permissions & std::filesystem::perms::owner_write, std::filesystem::perms::none);
  EXPECT_NEAR(static_cast<double>(AgeOf(folder / "alike", ec).count()), 50 * 3600.0, 10);
}

TEST_F(FileLayer, RemovesAnEntryOrATreeAndNothingThroughALink) {
  WriteFile(outside / "kept/file", "x");
  Write({"tree/a/b/file", "links/sub/file", "sibling/file"});
  test::MakeReadOnly(folder / "tree/a/b/file");
  EXPECT_FALSE(Remove(folder / "tree", ec));
  EXPECT_TRUE(ec);
  EXPECT_TRUE(RemoveTree(folder / "tree", ec)) << ec;
  for (const char* missing : {"tree", "tree/below"}) {
    EXPECT_FALSE(Remove(folder / missing, ec));
    EXPECT_FALSE(ec) << ec;
    EXPECT_TRUE(RemoveTree(folder / missing, ec)) << ec;
  }
  REQUIRE_LINKS(Link(outside.path(), "links/sub/out") && Link("../../sibling", "links/sub/to") &&
                Link(outside.path(), "direct"));
  // Wine cannot remove a link, so the link and the folders above it remain there.
  EXPECT_EQ(RemoveTree(folder / "links", ec), !RunsUnderWine()) << ec;
  EXPECT_EQ(RemoveTree(folder / "direct/", ec), !RunsUnderWine()) << ec;
  EXPECT_EQ(ListTree(outside.path()), "kept/\nkept/file\n");
  EXPECT_EQ(ListTree(folder / "sibling"), "file\n");
  EXPECT_EQ(test::Exists(folder / "links/sub/out"), RunsUnderWine());
  EXPECT_FALSE(test::Exists(folder / "links/sub/file"));
}

TEST_F(FileLayer, RemovesNothingThroughAFolderThatBecomesALinkMeanwhile) {
  WriteFile(outside / "kept/file", "x");
  Write({"tree/a/file", "tree/b/file"});
  bool linked = false;
  bool moved = false;
  const KeepAlive swap = [&] {
    const bool emptied_a = !test::Exists(folder / "tree/a/file");
    const bool emptied_b = !test::Exists(folder / "tree/b/file");
    if (emptied_a == emptied_b || linked) return;
    // The folder that is being emptied stays in its place.
    if (kOnWindows) moved = Rename(folder / "tree" / (emptied_a ? "a" : "b"), folder / "x", ec);
    const char* const later = emptied_a ? "tree/b" : "tree/a";
    linked = Rename(folder / later, folder / "moved", ec) && Link(outside.path(), later);
  };
  const bool removed = RemoveTree(folder / "tree", ec, swap);
  REQUIRE_LINKS(linked);
  EXPECT_FALSE(moved);
  EXPECT_EQ(removed, !RunsUnderWine()) << ec;  // Wine cannot remove a link
  EXPECT_EQ(ListTree(outside.path()), "kept/\nkept/file\n");
  EXPECT_EQ(ListTree(folder / "moved"), "file\n");
}

TEST_F(FileLayer, CreatesFilesInTheFolderThatIsHeld) {
  Write({"held/old"});
  const File held = HoldFolder(folder / "held", ec);
  ASSERT_TRUE(held.is_open()) << ec;
  const bool moved = Rename(folder / "held", folder / "moved", ec);
  EXPECT_EQ(moved, !kOnWindows);
  ASSERT_TRUE(!moved || Link(outside.path(), "held"));
  EXPECT_TRUE(CreateNewFileIn(held, "new", NewFileAccess::kWrite, ec).is_open()) << ec;
  EXPECT_FALSE(CreateNewFileIn(held, "old", NewFileAccess::kWrite, ec).is_open());
  EXPECT_TRUE(IsExistsError(ec)) << ec;
  EXPECT_EQ(ListTree(folder / (moved ? "moved" : "held")), "new\nold\n");
  EXPECT_EQ(ListTree(outside.path()), "");
  EXPECT_FALSE(HoldFolder(folder / (moved ? "moved/old" : "held/old"), ec).is_open());
  REQUIRE_LINKS(Link(outside.path(), "link"));
  EXPECT_FALSE(HoldFolder(folder / "link", ec).is_open());
  EXPECT_TRUE(ec);
}

TEST_F(FileLayer, QueriesAFileWithoutSharingAndRemovesTheTreeAroundIt) {
  if (!kOnWindows) GTEST_SKIP() << "this system has no share modes";
  Write({"t/a/1", "t/b/2", "t/c/3"});
  const File held = CreateNewFile(folder / "t/b/held", NewFileAccess::kWrite, ec);
  ASSERT_TRUE(held.is_open());
  EXPECT_FALSE(OpenForRead(folder / "t/b/held", ec).is_open());
  EXPECT_TRUE(IsLockedOrDeniedError(ec)) << ec;
  EXPECT_EQ(WeaklyCanonical(folder / "t/b/held", ec), folder / "t/b/held");
  EXPECT_EQ(KindOf(folder / "t/b/held", Links::kFollow, ec), EntryKind::kRegular);
  EXPECT_FALSE(RemoveTree(folder / "t", ec));
  EXPECT_TRUE(IsLockedOrDeniedError(ec)) << ec;
  EXPECT_EQ(ListTree(folder / "t"), "b/\nb/held\n");
}

TEST_F(FileLayer, AcceptsLongPathsAndNamesOutsideAscii) {
  Path deep = folder / "příliš žluťoučký 印刷";
  for (int i = 0; i < 20; ++i) deep /= "a-folder-name-of-some-length-" + std::to_string(i);
  WriteFile(deep / "file", "contents");
  EXPECT_TRUE(CopyFileDurably(deep / "file", deep / "copy", ec)) << ec;
  EXPECT_TRUE(MoveReplacing(deep / "copy", deep / "file", ec)) << ec;
  EXPECT_EQ(ReadFile(deep / "file"), "contents");
  // Wine's final paths end at 260 characters. That must be an error, not a shorter path.
  EXPECT_EQ(WeaklyCanonical(deep / "new", ec), RunsUnderWine() ? Path() : deep / "new");
  EXPECT_EQ(static_cast<bool>(ec), RunsUnderWine());
  const auto space = static_cast<double>(std::filesystem::space(folder.path()).available);
  EXPECT_NEAR(static_cast<double>(AvailableSpace(deep, ec)) / space, 1, 0.1) << ec;
  Volume volume;
  EXPECT_TRUE(VolumeOf(folder.path(), &volume, ec)) << ec;
  EXPECT_NEAR(static_cast<double>(volume.available_bytes) / space, 1, 0.1);
  EXPECT_TRUE(folder.path().native().starts_with(volume.root.native())) << volume.root;
  EXPECT_EQ(volume.cluster_bytes % 512, 0u) << volume.cluster_bytes;
  EXPECT_TRUE(RemoveTree(folder / "příliš žluťoučký 印刷", ec)) << ec;
  EXPECT_EQ(ListTree(folder.path()), "");
}

}  // namespace
}  // namespace zul::fs
