#include "apply/room.h"

#include <gtest/gtest.h>

namespace zul {
namespace {

// A file of 400 KiB is removed, a small one is added, and one of 400 KiB and a byte is replaced by
// one of 1900 KiB. A cluster has 4 KiB.
TEST(RoomCount, RefusesWhatDoesNotFitAndNothingElse) {
  const struct {
    const char* name;
    const char* backup_volume;
    std::uint64_t backup_kib;
    std::uint64_t app_kib;
    std::string refused;  ///< the volume and the missing megabytes
  } cases[] = {
      {"just enough", "D:\\", 1, 2308, ""},
      {"one cluster missing", "D:\\", 9999, 2304, "'D:\\' for the update: 1 MB"},
      {"more than a megabyte missing", "D:\\", 9999, 1280, "'D:\\' for the update: 2 MB"},
      {"enough for both", "C:\\", 804, 1504, ""},
      {"no room for the backups", "C:\\", 800, 9999, "'C:\\' for the update: 1 MB"},
      {"no room for the new files", "C:\\", 9999, 1500, "'D:\\' for the update: 1 MB"},
      {"unknown", "", 0, 1504, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RoomCount room({c.backup_volume, c.backup_kib << 10, 4096}, {"D:\\", c.app_kib << 10, 4096});
    room.AddRemoval(400 << 10);
    room.AddReplacement(0, 1);
    room.AddReplacement((400 << 10) + 1, 1900 << 10);
    std::string error;
    EXPECT_EQ(room.Suffices(&error), c.refused.empty());
    EXPECT_EQ(error, c.refused.empty() ? ""
                                       : "Not enough free space on " + c.refused +
                                             " more are needed. No file has been changed. Free "
                                             "this space, then start the update again.");
  }
}

// Two replacements in a row are ahead of the first of three. A cluster has 4 KiB.
TEST(RoomCount, CountsTheFilesAheadOnlyForWorkAhead) {
  const struct {
    const char* name;
    const char* backup_volume;
    std::uint64_t backup_kib;
    std::uint64_t app_kib;
    bool suffices_ahead;
  } cases[] = {
      {"enough", "C:\\", 24 + 20, 12 + 16, true},
      {"a cluster of a backup missing", "C:\\", 24 + 16, 9999, false},
      {"a cluster of a copy missing", "C:\\", 9999, 12 + 12, false},
      {"enough on one volume", "D:\\", 0, 32 + 36, true},
      {"a cluster missing on one volume", "D:\\", 0, 32 + 32, false},
      {"backups on an unknown volume", "", 9999, 9999, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RoomCount room({c.backup_volume, c.backup_kib << 10, 4096}, {"D:\\", c.app_kib << 10, 4096}, 2);
    room.AddReplacement(4 << 10, 12 << 10);
    room.AddReplacement(16 << 10, 4 << 10);
    room.AddReplacement(4 << 10, 12 << 10);
    EXPECT_TRUE(room.Suffices(nullptr));
    EXPECT_EQ(room.SufficesAhead(), c.suffices_ahead);
  }
}

}  // namespace
}  // namespace zul
