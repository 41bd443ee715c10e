// Archives made by the writers that packages really come from. A writer that is not installed is
// passed over.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "core/text.h"
#include "package/extract.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::ListTree;
using test::ReadFile;
using test::TempFolder;
using test::WriteFile;

TEST(ExtractPackage, TakesWhatCommonWritersMake) {
  const struct {
    const char* what;
    const char* tool;
    const char* command;  // run in the folder that holds "tree"
  } writers[] = {
      {"zip", "zip", "zip -qr p.zip tree"},
      {"zip, Zip64", "zip", "zip -qr -fz p.zip tree"},
      {"zip, stored", "zip", "zip -qr -0 p.zip tree"},
      {"7z", "7z", "7z a -bd -tzip p.zip tree"},
      {"Python", "python3", "python3 -m zipfile -c p.zip tree"},
      {"Python to a pipe", "python3",
       "python3 -c \"import sys,zipfile;"
       "z=zipfile.ZipFile(sys.stdout.buffer,'w',zipfile.ZIP_DEFLATED);"
       "[z.write('tree/'+n) for n in ('a.txt','sub/zeros.bin','sub/empty','имя.icc')];z.close()\""
       " | cat > p.zip"},
  };
  for (const auto& writer : writers) {
    const TempFolder folder;
    const std::string zeros(3000000, '\0');
    WriteFile(folder / "tree/a.txt", "hello");
    WriteFile(folder / "tree/sub/zeros.bin", zeros);
    WriteFile(folder / "tree/sub/empty", "");
    WriteFile(folder / "tree/имя.icc", "profile");
    const std::string quiet = " >/dev/null 2>&1";
    if (std::system(("command -v " + std::string(writer.tool) + quiet).c_str()) != 0) continue;
    const std::string in_folder = "cd '" + PathToUtf8(folder.path()) + "' && ";
    ASSERT_EQ(std::system((in_folder + "( " + writer.command + " )" + " >/dev/null").c_str()), 0)
        << writer.what;
    std::string error;
    EXPECT_TRUE(ExtractPackage(folder / "p.zip", folder / "out", &error))
        << writer.what << ": " << error;
    if (!error.empty()) continue;
    EXPECT_EQ(ListTree(folder / "out/tree"), ListTree(folder / "tree")) << writer.what;
    EXPECT_EQ(ReadFile(folder / "out/tree/sub/zeros.bin"), zeros) << writer.what;
    EXPECT_EQ(ReadFile(folder / "out/tree/имя.icc"), "profile") << writer.what;
  }
}

}  // namespace
}  // namespace zul
