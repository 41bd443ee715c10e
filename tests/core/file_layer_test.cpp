#include "core/file_layer.h"

#include <gtest/gtest.h>

#include <thread>

#include "core/system_error.h"
#include "core/text.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul::fs {
namespace {

using test::kOnWindows;
using test::ListTree;
using test::MakeLink;
using test::ReadFile;
using test::RunsUnderWine;
using test::TempFolder;
using test::WriteFile;

/// A fresh folder for each test, and another one that links lead to.
class FileLayer : public testing::Test {
 protected:
  void Write(std::initializer_list<const char*> files) {
    for (const char* file : files) WriteFile(folder / file, "x");
  }
  bool Link(const Path& target, const char* link) { return MakeLink(target, folder / link); }

  const TempFolder folder;
  const TempFolder outside;
  std::error_code ec;
};

#define REQUIRE_LINKS(...) \
  if (!(__VA_ARGS__)) GTEST_SKIP() << "this user may not make links"

// ---------------------------------------------------------------------------------------------
// Open files

TEST_F(FileLayer, OpenersDifferInWhatTheyDoToWhatIsThere) {
  const struct {
    const char* name;
    File (*open)(const Path&, std::error_code&);
    std::string over_existing;  ///< contents of "old" after writing "new"
  } openers[] = {
      {"create",
       [](const Path& p, std::error_code& e) { return CreateNewFile(p, NewFileAccess::kWrite, e); },
       "old"},
      {"truncate", CreateTruncatedFile, "new"},
      {"append", OpenForAppend, "oldnew"}};
  for (const auto& o : openers) {
    for (const bool existing : {false, true}) {
      SCOPED_TRACE(o.name);
      const Path path = folder / o.name;
      WriteFile(path, "old");
      if (!existing) Remove(path, ec);
      File file = o.open(path, ec);
      const bool refused = existing && o.over_existing == "old";
      EXPECT_EQ(IsExistsError(ec), refused) << ec;
      ASSERT_EQ(file.is_open(), !refused) << ec;
      if (!refused) {
        EXPECT_TRUE(WriteAll(file, "new", 3, ec) && file.Flush(ec) && file.Close(ec)) << ec;
      }
      EXPECT_TRUE(file.Close(ec));  // closed already: nothing to do
      EXPECT_EQ(ReadFile(path), existing ? o.over_existing : "new");
    }
  }
}

TEST_F(FileLayer, AppendersShareAFileAndItsEnd) {
  File first = OpenForAppend(folder / "log", ec);
  File second = OpenForAppend(folder / "log", ec);
  ASSERT_TRUE(first.is_open() && second.is_open()) << ec;
  for (File* file : {&first, &second, &first}) ASSERT_TRUE(WriteAll(*file, "ab", 2, ec)) << ec;
  EXPECT_EQ(ReadFile(folder / "log"), "ababab");
  std::uint64_t size = 0;
  EXPECT_TRUE(second.Size(&size, ec));
  EXPECT_EQ(size, 6u);
}

TEST_F(FileLayer, NewFileIsHeldExclusivelyOnWindows) {
  File held = CreateNewFile(folder / "f", NewFileAccess::kReadWrite, ec);
  ASSERT_TRUE(held.is_open());
  EXPECT_EQ(OpenForRead(folder / "f", ec).is_open(), !kOnWindows);
  if (kOnWindows) {
    EXPECT_TRUE(IsLockedOrDeniedError(ec)) << ec;
    EXPECT_FALSE(Remove(folder / "f", ec));
    EXPECT_TRUE(IsLockedOrDeniedError(ec)) << ec;
    // Questions about it are answered nevertheless.
    EXPECT_EQ(WeaklyCanonical(folder / "f", ec), folder / "f");
    EXPECT_EQ(KindOf(folder / "f", Links::kFollow, ec), EntryKind::kRegular);
  }
  held = File();
  EXPECT_TRUE(OpenForRead(folder / "f", ec).is_open()) << ec;
}

// ---------------------------------------------------------------------------------------------
// What is there and where

TEST_F(FileLayer, TellsKindsAndWhatAPathMeans) {
  Write({"file", "dir/inner"});
  REQUIRE_LINKS(Link("file", "to_file") && Link("dir", "to_dir") && Link("nowhere", "dangling"));
  const bool wine = RunsUnderWine();
  using enum EntryKind;
  const struct {
    const char* path;
    EntryKind followed;
    EntryKind itself;
    PathProbe::Kind probe;
  } cases[] = {
      {"file", kRegular, kRegular, PathProbe::kExists},
      {"dir", kDirectory, kDirectory, PathProbe::kExists},
      {"dir/", kDirectory, kDirectory, PathProbe::kExists},
      {"dir/../file", kRegular, kRegular, PathProbe::kExists},
      {"missing", kNotFound, kNotFound, PathProbe::kMissing},
      {"missing/below", kNotFound, kNotFound, PathProbe::kMissing},
      {"file/below", kNotFound, kNotFound, PathProbe::kMissing},
      {"to_dir", kDirectory, kLink, PathProbe::kExists},
      {"to_dir/inner", kRegular, kRegular, PathProbe::kExists},
      // Wine shows a link to a file as the file, and a dangling one not at all.
      {"to_file", kRegular, wine ? kRegular : kLink, PathProbe::kExists},
      {"dangling", kNotFound, wine ? kNotFound : kLink,
       wine ? PathProbe::kMissing : PathProbe::kUnresolvedReparsePoint},
      {"dangling/below", kNotFound, kNotFound, PathProbe::kMissing},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    for (const Links links : {Links::kFollow, Links::kDoNotFollow}) {
      ec = SystemError(1);
      EXPECT_EQ(KindOf(folder / c.path, links, ec),
                links == Links::kFollow ? c.followed : c.itself);
      EXPECT_FALSE(ec) << ec;
    }
    const PathProbe probe = ProbePath(folder / c.path);
    EXPECT_EQ(probe.kind, c.probe);
    EXPECT_EQ(probe.is_directory, c.probe == PathProbe::kExists && c.followed == kDirectory);
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
      {"dir/file", inside / "dir" / "file"},
      {"dir/", inside / "dir"},
      {"./dir/.//../dir/file", inside / "dir" / "file"},
      {"dir/new/deep.txt", inside / "dir" / "new" / "deep.txt"},
      {"new/", inside / "new"},
      {"dir/file/below", inside / "dir" / "file" / "below"},
      {"to_dir/file", inside / "dir" / "file"},
      {"to_dir/new", inside / "dir" / "new"},
      {"dir/out", out},
      {"dir/out/secret", out / "secret"},
      {"to_dir/out/new/x", out / "new" / "x"},
      {"dir/out/./new", out / "new"},
      // Behind what is missing "..", too, must not hide a link.
      {"dir/new/../out/secret", out / "secret"},
      {"missing/../to_dir/out", out},
      {"dangling/x", inside / "dangling" / "x"},
  };
  for (const auto& [path, expected] : cases) {
    ec = SystemError(1);
    EXPECT_EQ(WeaklyCanonical(folder / path, ec), expected) << path;
    EXPECT_FALSE(ec) << path << ec;
  }
  EXPECT_EQ(WeaklyCanonical("no-such-name/x", ec), CurrentDirectory(ec) / "no-such-name" / "x");
  EXPECT_TRUE(WeaklyCanonical("", ec).empty());
  EXPECT_TRUE(ec);
  EXPECT_EQ(Canonical(folder / "to_dir/out/secret", ec), out / "secret");
  EXPECT_TRUE(Canonical(folder / "new", ec).empty());
  EXPECT_TRUE(IsNotFoundError(ec)) << ec;
  if (kOnWindows) {
    EXPECT_EQ(WeaklyCanonical(folder / "DIR/FILE", ec), inside / "dir" / "file");
  }
}

TEST_F(FileLayer, MeasuresAndComparesEntries) {
  WriteFile(folder / "a", "12345");
  WriteFile(folder / "b", "12345");
  REQUIRE_LINKS(Link(folder.path(), "self"));
  EXPECT_EQ(SizeOf(folder / "self/a", ec), 5u);
  EXPECT_FALSE(ec);
  EXPECT_EQ(SizeOf(folder.path(), ec), 0u);
  EXPECT_TRUE(ec);
  EXPECT_TRUE(IsSameFile(folder / "a", folder / "self/a", ec));
  EXPECT_FALSE(IsSameFile(folder / "a", folder / "b", ec));
  EXPECT_FALSE(ec);
  EXPECT_FALSE(IsSameFile(folder / "a", folder / "missing", ec));
  EXPECT_TRUE(IsNotFoundError(ec));
  EXPECT_LE(std::chrono::abs(AgeOf(folder / "a", ec)), std::chrono::seconds(5));
  EXPECT_FALSE(ec);
  EXPECT_GT(AvailableSpace(folder.path(), ec), 0u);
  EXPECT_EQ(AvailableSpace(folder / "missing", ec), 0u);
  EXPECT_TRUE(ec);
}

// ---------------------------------------------------------------------------------------------
// Listing

TEST_F(FileLayer, WalksInPreOrderAndNeverEntersALink) {
  WriteFile(outside / "secret", "x");
  Write({"t/a/1", "t/a/b/2", "t/c/3", "t/4"});
  REQUIRE_LINKS(Link(outside.path(), "t/a/out") && Link("..", "t/c/up") && Link("t", "to_t"));
  EXPECT_EQ(ListTree(folder / "t"), "4\na/\na/1\na/b/\na/b/2\na/out\nc/\nc/3\nc/up\n");
  EXPECT_EQ(ListTree(folder / "to_t"), ListTree(folder / "t"));  // a root may be a link

  TreeWalker walker(folder / "t");
  DirectoryEntry entry;
  Path last_folder = folder / "t";
  while (walker.Next(&entry, ec)) {
    // Pre-order: the entry's folder is the last one entered or one above it.
    const Path parent = entry.path.parent_path();
    EXPECT_FALSE(last_folder.lexically_relative(parent).empty());
    EXPECT_NE(*last_folder.lexically_relative(parent).begin(), "..");
    last_folder = entry.kind == EntryKind::kDirectory ? entry.path : parent;
    EXPECT_EQ(entry.kind == EntryKind::kLink,
              entry.path.filename() == "out" || entry.path.filename() == "up");
  }
  EXPECT_FALSE(ec);
  EXPECT_EQ(ListDirectory(folder / "t", ec).size(), 3u);

  for (const Path& bad : {folder / "missing", folder / "t/4", Path()}) {
    TreeWalker none(bad);
    EXPECT_FALSE(none.Next(&entry, ec));
    EXPECT_TRUE(ec) << bad;
    EXPECT_FALSE(none.Next(&entry, ec));
    EXPECT_TRUE(ListDirectory(bad, ec).empty());
    EXPECT_TRUE(ec);
  }
}

// ---------------------------------------------------------------------------------------------
// Changes

TEST_F(FileLayer, CreatesFoldersAndTellsItsOwnFromOthers) {
  WriteFile(folder / "file", "x");
  EXPECT_EQ(CreateDirectoryOnce(folder / "new", ec), CreateResult::kCreated);
  for (const char* existing : {"new", "file"}) {
    EXPECT_EQ(CreateDirectoryOnce(folder / existing, ec), CreateResult::kExisted);
    EXPECT_TRUE(IsExistsError(ec)) << ec;
  }
  EXPECT_EQ(CreateDirectoryOnce(folder / "missing/new", ec), CreateResult::kFailed);
  EXPECT_TRUE(IsNotFoundError(ec)) << ec;

  for (const char* path : {"a/b/c", "a/b/c", "a/b/d/", "new", "e/../f/g"}) {
    EXPECT_TRUE(CreateDirectories(folder / path, ec)) << path << ec;
    EXPECT_FALSE(ec);
  }
  for (const char* path : {"file", "file/below"}) {
    EXPECT_FALSE(CreateDirectories(folder / path, ec)) << path;
    EXPECT_TRUE(ec);
  }
  EXPECT_FALSE(CreateDirectories({}, ec));
  EXPECT_TRUE(ec);
}

TEST_F(FileLayer, ManyMayCreateOneFolderAtOnce) {
  std::vector<std::jthread> threads(8);
  for (std::jthread& thread : threads) {
    thread = std::jthread([&] {
      for (int n = 0; n < 20; ++n) {
        std::error_code own;
        EXPECT_TRUE(CreateDirectories(folder / (std::to_string(n) + "/x/y"), own)) << own;
      }
    });
  }
}

TEST_F(FileLayer, MovesDifferInWhatTheyDoToAnExistingTarget) {
  const struct {
    const char* name;
    bool (*move)(const Path&, const Path&, std::error_code&);
    bool replaces;
  } moves[] = {{"Rename", Rename, false},
               {"MoveToNewName", MoveToNewName, false},
               {"MoveReplacing", MoveReplacing, true}};
  for (const auto& m : moves) {
    SCOPED_TRACE(m.name);
    const Path base = folder / m.name;
    WriteFile(base / "from", "from");
    WriteFile(base / "to", "to");
    WriteFile(base / "dir/kept", "x");
    EXPECT_TRUE(m.move(base / "from", base / "moved", ec)) << ec;
    EXPECT_FALSE(ec);
    EXPECT_FALSE(m.move(base / "from", base / "again", ec));
    EXPECT_TRUE(IsNotFoundError(ec)) << ec;
    EXPECT_FALSE(m.move(base / "moved", base / "missing/x", ec));
    EXPECT_TRUE(IsNotFoundError(ec)) << ec;
    EXPECT_FALSE(m.move(base / "moved", base / "dir", ec));
    EXPECT_EQ(m.move(base / "moved", base / "to", ec), m.replaces);
    if (!m.replaces) {
      EXPECT_TRUE(IsExistsError(ec)) << ec;
      EXPECT_EQ(ReadFile(base / "moved"), "from");
    }
    EXPECT_EQ(ReadFile(base / "to"), m.replaces ? "from" : "to");
    EXPECT_EQ(ReadFile(base / "dir/kept"), "x");
  }
  Write({"tree/a/file"});
  EXPECT_TRUE(CreateDirectories(folder / "tree/empty", ec));
  EXPECT_FALSE(Rename(folder / "tree/a", folder / "tree/empty", ec));
  EXPECT_TRUE(ec);
  EXPECT_TRUE(Rename(folder / "tree/a", folder / "tree/b", ec)) << ec;
  EXPECT_EQ(ListTree(folder / "tree"), "b/\nb/file\nempty/\n");
}

TEST_F(FileLayer, KeepsItsCallerAliveThroughLongWork) {
  int calls = 0;
  const KeepAlive count = [&calls] { ++calls; };
  for (const auto& [size, expected] : {std::pair{1000, 0}, {1 << 20, 1}, {(5 << 20) / 2, 2}}) {
    const std::string name = std::to_string(size);
    WriteFile(folder / ("tree/" + name), std::string(static_cast<std::size_t>(size), 'x'));
    calls = 0;
    EXPECT_TRUE(CopyFileDurably(folder / ("tree/" + name), folder / name, ec, count)) << ec;
    EXPECT_GE(calls, expected) << size;  // and some more while the device takes its time
    EXPECT_EQ(calls > 0, expected > 0) << size;
  }
  calls = 0;
  EXPECT_TRUE(RemoveTree(folder / "tree", ec, count)) << ec;
  EXPECT_EQ(calls, 3);
}

TEST_F(FileLayer, CopiesContentsTimeAndAttributes) {
  std::string large((std::size_t{5} << 20) / 2, '\0');
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7 + i / 4096);
  for (const std::string name : {"durable", "new", "over"}) {
    SCOPED_TRACE(name);
    const bool overwrites = name == "over";
    const auto copy = [&](const Path& from, const Path& to) {
      if (name == "durable") return CopyFileDurably(from, to, ec);
      return CopyFileTo(from, to, overwrites ? Overwrite::kYes : Overwrite::kNo, ec);
    };
    const Path base = folder / name;
    for (const std::string& contents : {std::string(), std::string("abc"), large}) {
      const Path from = base / ("from" + std::to_string(contents.size()));
      WriteFile(from, contents);
      const Path to = base / ("to" + std::to_string(contents.size()));
      EXPECT_TRUE(copy(from, to)) << ec;
      EXPECT_TRUE(ReadFile(to) == contents);
    }
    WriteFile(base / "other", "other");
    EXPECT_EQ(copy(base / "from3", base / "other"), overwrites);
    EXPECT_EQ(IsExistsError(ec), !overwrites) << ec;
    EXPECT_EQ(ReadFile(base / "other"), overwrites ? "abc" : "other");
    for (const char* bad : {"missing", "."}) {
      EXPECT_FALSE(copy(base / bad, base / "none")) << bad;
      EXPECT_TRUE(ec);
    }
    if (overwrites) continue;
    test::MakeOlder(base / "from3", std::chrono::hours(50));
    test::MakeReadOnly(base / "from3");
    EXPECT_TRUE(copy(base / "from3", base / "alike")) << ec;
    EXPECT_TRUE(test::IsReadOnly(base / "alike"));
    EXPECT_NEAR(static_cast<double>(AgeOf(base / "alike", ec).count()), 50 * 3600.0, 10);
  }
}

TEST_F(FileLayer, RemovesOneEntryOrAWholeTree) {
  WriteFile(folder / "file", "x");
  WriteFile(folder / "tree/a/b/file", "x");
  test::MakeReadOnly(folder / "tree/a/b/file");
  WriteFile(folder / "tree/c", "x");
  ASSERT_TRUE(CreateDirectories(folder / "empty", ec));
  EXPECT_FALSE(Remove(folder / "tree", ec));
  EXPECT_TRUE(ec);
  for (const char* path : {"file", "empty"}) EXPECT_TRUE(Remove(folder / path, ec)) << path << ec;
  for (const char* path : {"file", "missing/below"}) {
    EXPECT_FALSE(Remove(folder / path, ec)) << path;
    EXPECT_FALSE(ec) << ec;
    EXPECT_TRUE(RemoveTree(folder / path, ec)) << path << ec;
  }
  EXPECT_TRUE(RemoveTree(folder / "tree", ec)) << ec;
  EXPECT_EQ(ListTree(folder.path()), "");
}

TEST_F(FileLayer, RemovesNoTreeThroughALink) {
  WriteFile(outside / "kept/deep/file", "x");
  Write({"a/sub/file", "b/sub/file"});
  REQUIRE_LINKS(Link(outside.path(), "a/sub/out") && Link("../../b", "a/sub/sibling") &&
                Link(outside.path(), "direct"));
  // A link under Wine cannot be removed at all, so there the folders above it stay as well.
  EXPECT_EQ(RemoveTree(folder / "a", ec), !RunsUnderWine()) << ec;
  EXPECT_EQ(RemoveTree(folder / "direct/", ec), !RunsUnderWine()) << ec;
  EXPECT_EQ(ListTree(outside.path()), "kept/\nkept/deep/\nkept/deep/file\n");
  EXPECT_EQ(ListTree(folder / "b"), "sub/\nsub/file\n");
  if (RunsUnderWine()) {
    EXPECT_EQ(ListTree(folder / "a"), "sub/\nsub/out\nsub/sibling\n");
    return;
  }
  EXPECT_EQ(ListTree(folder.path()), "b/\nb/sub/\nb/sub/file\n");
  // What points at a file goes alone, too (under Wine it is taken for the file).
  ASSERT_TRUE(Link(outside / "kept/deep/file", "to_file"));
  EXPECT_TRUE(Remove(folder / "to_file", ec)) << ec;
  EXPECT_TRUE(test::Exists(outside / "kept/deep/file"));
}

TEST_F(FileLayer, GoesOnPastWhatItCannotRemove) {
  if (!kOnWindows) GTEST_SKIP() << "no file can be held here";
  Write({"t/a/1", "t/b/2", "t/c/3"});
  File held = CreateNewFile(folder / "t/b/held", NewFileAccess::kWrite, ec);
  ASSERT_TRUE(held.is_open());
  EXPECT_FALSE(RemoveTree(folder / "t", ec));
  EXPECT_TRUE(IsLockedOrDeniedError(ec)) << ec;
  EXPECT_EQ(ListTree(folder / "t"), "b/\nb/held\n");
}

TEST_F(FileLayer, PathsMayBeLongAndNotAscii) {
  Path deep = folder / "příliš žluťoučký 印刷";
  for (int i = 0; i < 20; ++i) deep /= "a-folder-name-of-some-length-" + std::to_string(i);
  ASSERT_GT(deep.native().size(), 500u);
  WriteFile(deep / "file", "contents");
  EXPECT_TRUE(CopyFileDurably(deep / "file", deep / "copy", ec)) << ec;
  EXPECT_TRUE(MoveReplacing(deep / "copy", deep / "file", ec)) << ec;
  EXPECT_EQ(ReadFile(deep / "file"), "contents");
  // Wine's final paths end at 260 characters; that must be an error and no shorter path.
  EXPECT_EQ(WeaklyCanonical(deep / ".." / deep.filename() / "new", ec),
            RunsUnderWine() ? Path() : deep / "new");
  EXPECT_EQ(static_cast<bool>(ec), RunsUnderWine());
  EXPECT_GT(AvailableSpace(deep, ec), 0u) << ec;
  EXPECT_NE(ListTree(folder.path()).find("length-19/file\n"), std::string::npos);
  EXPECT_TRUE(RemoveTree(folder / "příliš žluťoučký 印刷", ec)) << ec;
  EXPECT_EQ(ListTree(folder.path()), "");
}

TEST_F(FileLayer, AFullVolumeIsAnErrorAndNotAShortFile) {
  const test::SmallVolume volume;
  if (volume.path().empty()) GTEST_SKIP() << volume.why_not();
  WriteFile(folder / "large", std::string(std::size_t{8} << 20, 'x'));
  EXPECT_LT(AvailableSpace(volume.path(), ec), std::uint64_t{8} << 20);
  EXPECT_FALSE(CopyFileDurably(folder / "large", volume.path() / "a", ec));
  EXPECT_EQ(ec, std::errc::no_space_on_device);
  EXPECT_TRUE(Remove(volume.path() / "a", ec)) << ec;
  EXPECT_FALSE(CopyFileTo(folder / "large", volume.path() / "b", Overwrite::kNo, ec));
  EXPECT_EQ(ec, std::errc::no_space_on_device);
}

TEST_F(FileLayer, AFullDeviceFailsTheWrite) {
  if (kOnWindows && !RunsUnderWine()) GTEST_SKIP() << "no such device here";
  REQUIRE_LINKS(Link("/dev/full", "full"));
  File file = CreateTruncatedFile(folder / "full", ec);
  ASSERT_TRUE(file.is_open()) << ec;
  EXPECT_FALSE(WriteAll(file, "x", 1, ec));
  EXPECT_EQ(ec, std::errc::no_space_on_device);
}

}  // namespace
}  // namespace zul::fs
