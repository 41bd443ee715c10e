#include "inspect/package_advice.h"

#include <algorithm>
#include <array>

namespace zul {

namespace {

constexpr std::string_view kMakeAgain =
    "Make the package again with `7z a -tzip` or `zip -r` into a file; the archive is damaged or "
    "was "
    "written in an unusual way.";
constexpr std::string_view kCopyAgain =
    "Compare the SHA-256 with that of the original and copy the file again; if they are equal, "
    "make "
    "the package again.";
constexpr std::string_view kRename =
    "Rename the file and make the package again; the names must be different on Windows, where "
    "letter case does not count.";
constexpr std::string_view kFreeDisk =
    "Free space on the volume of the temporary folder, or set TMP (on Linux TMPDIR) to a folder on "
    "another volume.";
constexpr std::string_view kCheckTemp =
    "Check that this user may write to the temporary folder and that no security product blocks "
    "it; "
    "then run the update again.";
constexpr std::string_view kChangedMeanwhile =
    "Another program has changed the files during the work; close it, or exclude the temporary "
    "folder from what it watches, and run the update again.";
constexpr std::string_view kReportFault =
    "This is a fault of the updater; keep the package and report it.";
constexpr std::string_view kNoEncryption =
    "Make the package again without a password; packages are public, and their digest protects "
    "them.";
constexpr std::string_view kSignEach =
    "Sign every .exe and .dll of the payload with an embedded signature before you make the "
    "package; "
    "signatures in catalogues do not count.";

constexpr std::array kTable = std::to_array<PackageAdvice>({
    // The file as a whole.
    {"Not a ZIP archive", Remedy::kPublisher,
     "Make a ZIP file, and let its name end in .zip; no other format is taken."},
    {"Update package exceeds maximum allowed size", Remedy::kPublisher,
     "Make the package smaller than 1 GiB: leave out files that have not changed."},
    {"cannot open ZIP local entry: ", Remedy::kPublisher, kMakeAgain},
    {"cannot open ZIP entry: ", Remedy::kPublisher, kMakeAgain},
    {"cannot open ZIP", Remedy::kMachine,
     "Check that the file exists, is not a folder, and may be read by this user."},
    {"ZIP end record not found", Remedy::kPublisher,
     "The file is no ZIP or its end is missing: compare its size with the original, upload it "
     "again, "
     "and check that the server does not answer with a web page."},
    {"invalid ZIP central directory: ", Remedy::kPublisher,
     "Make the package again with `7z a -tzip` or `zip -r`; the list of files is damaged, states "
     "itself in two ways, or has exactly 65,535 entries without Zip64 (add or remove a file)."},
    {"multi-disk ZIP is not supported", Remedy::kPublisher,
     "Make the package again as one file, without splitting it into volumes."},
    {"cannot read ZIP entry count", Remedy::kPublisher, kMakeAgain},
    {"ZIP central directory has too many entries for this system", Remedy::kPublisher, kMakeAgain},
    {"ZIP central directory is incomplete", Remedy::kPublisher, kCopyAgain},
    {"ZIP entry count does not match central directory", Remedy::kPublisher, kMakeAgain},
    {"cannot read ZIP central directory entry", Remedy::kPublisher, kCopyAgain},
    {"ZIP total uncompressed size overflows", Remedy::kPublisher, kMakeAgain},
    {"cannot allocate ZIP reader", Remedy::kMachine,
     "The system has no memory left; close other programs and run the update again."},
    {"ZIP reader has no active archive", Remedy::kProduct, kReportFault},
    {"Destination directory is empty", Remedy::kProduct, kReportFault},

    // One entry.
    {"ZIP entry contains a negative size or offset", Remedy::kPublisher, kMakeAgain},
    {"encrypted ZIP central directory is not supported", Remedy::kPublisher, kNoEncryption},
    {"encrypted ZIP entries are not supported", Remedy::kPublisher, kNoEncryption},
    {"unsupported ZIP compression method", Remedy::kPublisher,
     "Make the package again with the methods Store or Deflate: with 7z add `-mm=Deflate`."},
    {"unsafe ZIP entry path", Remedy::kPublisher,
     "Rename the file: a name must be relative, without `..`, without a control character or one "
     "of "
     "\" * : < > ? |, not end in a blank or a dot, and not be a device such as CON or AUX."},
    {"cannot read ZIP local header", Remedy::kPublisher, kMakeAgain},
    {"local header compression method does not match central directory", Remedy::kPublisher,
     kMakeAgain},
    {"local header flags do not match central directory", Remedy::kPublisher, kMakeAgain},
    {"local header filename does not match central directory", Remedy::kPublisher, kMakeAgain},
    {"local header sizes or CRC do not match central directory", Remedy::kPublisher,
     "Make the package again with `7z a -tzip`, or with `zip -r FILE.zip FOLDER`; bsdtar, and zip "
     "into a pipe, write only a part of the sizes to the local header, and their packages are "
     "refused."},
    {"cannot close ZIP local entry: ", Remedy::kPublisher, kMakeAgain},
    {"ZIP entry path collision", Remedy::kPublisher, kRename},
    {"ZIP directory path collision on target filesystem", Remedy::kPublisher, kRename},
    {"ZIP directory path collision", Remedy::kPublisher,
     "Spell the folder in one way in every name, and make the package again."},
    {"ZIP file path conflicts with a child entry", Remedy::kPublisher, kRename},

    // Unpacking.
    {"ZIP inflate failed: ", Remedy::kPublisher, kCopyAgain},
    {"ZIP entry read failed: ", Remedy::kPublisher, kCopyAgain},
    {"ZIP entry CRC mismatch", Remedy::kPublisher, kCopyAgain},
    {"ZIP entry close failed: ", Remedy::kPublisher, kCopyAgain},
    {"ZIP entry output exceeds declared uncompressed size", Remedy::kPublisher, kMakeAgain},
    {"ZIP entry output size mismatch", Remedy::kPublisher, kMakeAgain},
    {"ZIP source changed during extraction", Remedy::kMachine, kChangedMeanwhile},
    {"not enough disk space for ZIP extraction: ", Remedy::kMachine, kFreeDisk},
    {"cannot determine free space for ZIP extraction: ", Remedy::kMachine, kCheckTemp},
    {"cannot write extracted file: ", Remedy::kMachine, kFreeDisk},
    {"cannot flush extracted file: ", Remedy::kMachine, kFreeDisk},
    {"cannot close extracted file: ", Remedy::kMachine, kFreeDisk},
    {"cannot create extracted file exclusively: path already exists", Remedy::kPublisher, kRename},
    {"cannot create extracted file exclusively: ", Remedy::kMachine,
     "Check that this user may write to the temporary folder, and that each part of the name has "
     "at "
     "most 255 characters (on Linux 255 bytes)."},
    {"cannot create extraction directory: ", Remedy::kMachine, kCheckTemp},
    {"cannot resolve extraction root", Remedy::kMachine, kChangedMeanwhile},
    {"cannot resolve extracted file path", Remedy::kMachine, kChangedMeanwhile},
    {"ZIP entry escapes extraction root", Remedy::kMachine, kChangedMeanwhile},
    {"extracted file resolved outside extraction root", Remedy::kMachine, kChangedMeanwhile},
    {"ZIP extraction directory identity changed", Remedy::kMachine, kChangedMeanwhile},
    {"Cannot create extraction parent directory: ", Remedy::kMachine, kCheckTemp},
    {"Cannot create unique extraction directory: ", Remedy::kMachine, kCheckTemp},
    {"Cannot allocate unique extraction directory", Remedy::kMachine, kCheckTemp},
    {"Cannot inspect extraction destination: ", Remedy::kMachine, kCheckTemp},
    {"Cannot stage previous extraction directory: ", Remedy::kMachine, kChangedMeanwhile},
    {"Cannot finalize extraction directory: ", Remedy::kMachine, kChangedMeanwhile},

    // The layout and what follows it.
    {"Update package required file contract is empty or too large.", Remedy::kPublisher,
     "Name 1 to 64 files with --required-payload-file; the updater refuses a package without them "
     "after the whole download."},
    {"Update package required file name is unsafe: ", Remedy::kPublisher,
     "Name a file of the top level, without a folder: 1 to 128 letters, digits, dots, underscores "
     "and "
     "hyphens."},
    {"Update package required file name is duplicated: ", Remedy::kPublisher,
     "Name each required file once; letter case does not count."},
    {"Update package layout mismatch. Required files are missing: ", Remedy::kPublisher,
     "Put these files at the top of the archive, or all of them into its only folder, or correct "
     "--required-payload-file."},
    {"Update target directory cannot be normalized: '", Remedy::kMachine,
     "Check that the installation folder exists and that this user may read it."},
    {"Update payload target cannot be normalized: '", Remedy::kMachine,
     "Check that this user may read the folder of this file in the installation."},
    {"Update payload target escapes the update directory: '", Remedy::kMachine,
     "A link in the installation leads out of it; replace the link by a folder."},
    {"Staged update binary is not signed by a trusted publisher: '", Remedy::kPublisher, kSignEach},
    {"Update payload binary signature verifier is not configured.", Remedy::kProduct, kReportFault},
    {"Update payload signature enumeration failed: ", Remedy::kMachine, kChangedMeanwhile},
    {"Cannot enumerate staged update tree for signature validation: '", Remedy::kMachine,
     kChangedMeanwhile},
    {"Cannot resolve staged relative path during signature validation for '", Remedy::kMachine,
     kChangedMeanwhile},
    {"Staged update contains an unsafe payload path during signature validation: '",
     Remedy::kMachine, kChangedMeanwhile},
});

}  // namespace

std::span<const PackageAdvice> PackageAdviceTable() {
  return kTable;
}

const PackageAdvice* FindPackageAdvice(std::string_view message) {
  const auto* const found = std::find_if(
      kTable.begin(), kTable.end(),
      [message](const PackageAdvice& row) { return message.starts_with(row.beginning); });
  return found == kTable.end() ? nullptr : found;
}

std::string_view RemedyWord(Remedy remedy) {
  switch (remedy) {
    case Remedy::kPublisher:
      return "publisher";
    case Remedy::kMachine:
      return "machine";
    case Remedy::kNetwork:
      return "network";
    case Remedy::kProduct:
      break;
  }
  return "product";
}

}  // namespace zul
