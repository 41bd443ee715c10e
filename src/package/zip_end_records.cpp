#include "package/zip_end_records.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "package/zip_names.h"

namespace zul {

namespace {

// End of central directory record, APPNOTE 4.3.16, with the largest comment.
constexpr std::string_view kEndSignature = "PK\5\6";
constexpr std::size_t kEndBytes = 22;
constexpr std::size_t kEndEntries = 10;
constexpr std::size_t kEndDirectorySize = 12;
constexpr std::size_t kEndDirectoryOffset = 16;
constexpr std::size_t kEndCommentLength = 20;
constexpr std::int64_t kEndAndCommentMax = 65557;

// Zip64 end of central directory record and locator, APPNOTE 4.3.14 and 4.3.15.
constexpr std::string_view kEnd64Signature = "PK\6\6";
constexpr std::size_t kEnd64Rest = 4;  // the length of what follows this field
constexpr std::size_t kEnd64Entries = 32;
constexpr std::size_t kEnd64DirectorySize = 40;
constexpr std::size_t kEnd64DirectoryOffset = 48;
constexpr std::size_t kEnd64Bytes = 56;
constexpr std::string_view kLocatorSignature = "PK\6\7";
constexpr std::size_t kLocatorOffset = 8;
constexpr std::size_t kLocatorBytes = 20;

// Up to `size` bytes; fewer at the end of the file.
std::string ReadAt(ZipFileStream& stream, std::int64_t at, std::int64_t size) {
  std::string bytes(static_cast<std::size_t>(size), '\0');
  if (stream.Seek(at) != kZipOk) return {};
  const std::int32_t read = stream.Read(bytes.data(), static_cast<std::int32_t>(size));
  bytes.resize(static_cast<std::size_t>(std::max(read, 0)));
  return bytes;
}

std::string ReadTail(ZipFileStream& stream) {
  const std::int64_t size = std::min(stream.size(), kEndAndCommentMax);
  return ReadAt(stream, stream.size() - size, size);
}

// What an end record or a Zip64 end record states.
struct Stated {
  std::uint64_t entries = 0;
  std::uint64_t size = 0;
  std::uint64_t offset = 0;
};

// A field of the end record whose bits are all ones refers to the Zip64 record.
bool StatesTheSame(const Stated& end, const Stated& zip64) {
  return (end.entries == UINT16_MAX || end.entries == zip64.entries) &&
         (end.size == UINT32_MAX || end.size == zip64.size) &&
         (end.offset == UINT32_MAX || end.offset == zip64.offset);
}

bool Describes(const Stated& stated, const ZipDirectoryWalk& walked) {
  return stated.entries == walked.entries &&
         stated.size == static_cast<std::uint64_t>(walked.end - walked.begin) &&
         stated.offset <= static_cast<std::uint64_t>(walked.begin);
}

// `between` is the bytes between the directory and the end record: the Zip64 record and its
// locator.
bool Zip64RecordsAgree(std::string_view between, const Stated& end,
                       const ZipDirectoryWalk& walked) {
  if (between.size() < kEnd64Bytes + kLocatorBytes || !between.starts_with(kEnd64Signature)) {
    return false;
  }
  const std::string_view locator = between.substr(between.size() - kLocatorBytes);
  const Stated stated = {.entries = LittleEndian64(between, kEnd64Entries),
                         .size = LittleEndian64(between, kEnd64DirectorySize),
                         .offset = LittleEndian64(between, kEnd64DirectoryOffset)};
  constexpr std::size_t kFieldsBeforeRest = kEnd64Rest + 8;
  return locator.starts_with(kLocatorSignature) &&
         LittleEndian64(between, kEnd64Rest) ==
             between.size() - kLocatorBytes - kFieldsBeforeRest &&
         LittleEndian64(locator, kLocatorOffset) == stated.offset + stated.size &&
         Describes(stated, walked) && StatesTheSame(end, stated);
}

}  // namespace

bool HasExactZipEndRecord(ZipFileStream& stream) {
  const std::string tail = ReadTail(stream);
  for (std::size_t at = tail.rfind(kEndSignature); at != std::string::npos;
       at = at == 0 ? std::string::npos : tail.rfind(kEndSignature, at - 1)) {
    if (at + kEndBytes > tail.size()) continue;
    if (at + kEndBytes + LittleEndian16(tail, at + kEndCommentLength) == tail.size()) return true;
  }
  return false;
}

bool ZipEndRecordsAgree(ZipFileStream& stream, const ZipDirectoryWalk& walked) {
  const std::string tail = ReadTail(stream);
  const std::size_t at = tail.rfind(kEndSignature);
  if (at == std::string::npos || tail.size() - at < kEndBytes) return false;
  const Stated end = {.entries = LittleEndian16(tail, at + kEndEntries),
                      .size = LittleEndian32(tail, at + kEndDirectorySize),
                      .offset = LittleEndian32(tail, at + kEndDirectoryOffset)};
  const std::int64_t end_at = stream.size() - static_cast<std::int64_t>(tail.size() - at);
  if (end_at == walked.end) return Describes(end, walked);
  const std::int64_t between = end_at - walked.end;
  if (between < 0 || between > kEndAndCommentMax) return false;
  return Zip64RecordsAgree(ReadAt(stream, walked.end, between), end, walked);
}

}  // namespace zul
