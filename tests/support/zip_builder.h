#pragma once

// Archives for tests, made in memory: right by default, and wrong in exactly the fields that a test
// names. Usage:
//   ZipBuilder zip;
//   zip.File("app.exe", contents).Deflated().Local(ZipField::kCrc, 0);
//   WriteFile(path, zip.Build());

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace zul::test {

/// The fields that a local header and its record in the central directory share, and those that
/// only the record has. A length that is set here changes the number and not what stands there.
enum class ZipField {
  kSignature,
  kFlags,
  kMethod,
  kCrc,
  kCompressedSize,
  kUncompressedSize,
  kNameLength,
  kExtraLength,
  kDiskNumber,          ///< central only
  kExternalAttributes,  ///< central only
  kLocalOffset,         ///< central only
};

/// The fields of the end of central directory record; the counts and positions also go to the Zip64
/// one where there is one.
enum class ZipEndField {
  kDisk,
  kDirectoryDisk,
  kEntriesOnDisk,
  kEntries,
  kDirectorySize,
  kDirectoryOffset,
  kCommentLength,
};

/// Gives a builder's member a value, and the builder back.
template <typename Builder, typename Member, typename Value>
Builder& With(Builder& builder, Member& member, Value&& value) {
  member = std::forward<Value>(value);
  return builder;
}

class ZipEntryBuilder {
 public:
  ZipEntryBuilder(std::string name, std::string data)
      : name_(std::move(name)), data_(std::move(data)) {}

  ZipEntryBuilder& Deflated() { return With(*this, deflated_, true); }
  /// Bit 3: a data descriptor behind the data, and zeros in the local header.
  ZipEntryBuilder& Streamed() { return With(*this, streamed_, true); }
  /// Sizes and offset in Zip64 extra records, all ones in the fields themselves.
  ZipEntryBuilder& Zip64() { return With(*this, zip64_, true); }
  /// The Unix attributes of a symbolic link, whose data is its target.
  ZipEntryBuilder& Symlink() { return Central(ZipField::kExternalAttributes, 0xA1FF0000); }
  /// These bytes in place of the compressed data; the sizes and the CRC stay those of the contents.
  ZipEntryBuilder& StoredBytes(std::string bytes) {
    return With(*this, stored_bytes_, std::move(bytes));
  }
  ZipEntryBuilder& LocalName(std::string name) { return With(*this, local_name_, std::move(name)); }
  ZipEntryBuilder& LocalExtra(std::string_view record) {
    return With(*this, local_extra_, local_extra_ + std::string(record));
  }
  ZipEntryBuilder& CentralExtra(std::string_view record) {
    return With(*this, central_extra_, central_extra_ + std::string(record));
  }
  ZipEntryBuilder& Extra(std::string_view record) {
    return LocalExtra(record).CentralExtra(record);
  }
  ZipEntryBuilder& Local(ZipField field, std::uint64_t value) {
    return With(*this, local_fields_[field], value);
  }
  ZipEntryBuilder& Central(ZipField field, std::uint64_t value) {
    return With(*this, central_fields_[field], value);
  }
  ZipEntryBuilder& Both(ZipField field, std::uint64_t value) {
    return Local(field, value).Central(field, value);
  }

 private:
  friend class ZipBuilder;
  using Fields = std::map<ZipField, std::uint64_t>;

  [[nodiscard]] Fields RightFields(std::uint64_t offset) const;
  [[nodiscard]] std::string LocalHeaderAndData(std::uint64_t offset) const;
  [[nodiscard]] std::string CentralRecord(std::uint64_t offset) const;
  [[nodiscard]] std::string Compressed() const;

  std::string name_;
  std::optional<std::string> local_name_;
  std::string data_;
  std::optional<std::string> stored_bytes_;
  bool deflated_ = false;
  bool streamed_ = false;
  bool zip64_ = false;
  std::string local_extra_;
  std::string central_extra_;
  Fields local_fields_;
  Fields central_fields_;
};

class ZipBuilder {
 public:
  /// The entry stays valid as long as the builder.
  ZipEntryBuilder& File(std::string name, std::string data) {
    return entries_.emplace_back(std::move(name), std::move(data));
  }
  /// An entry whose name ends in `/`; the caller writes it.
  ZipEntryBuilder& Directory(std::string name) { return File(std::move(name), ""); }

  ZipBuilder& Comment(std::string comment) { return With(*this, comment_, std::move(comment)); }
  /// Bytes before the first entry that the offsets do not count, as in a self-extracting archive.
  ZipBuilder& Prefix(std::string bytes) { return With(*this, prefix_, std::move(bytes)); }
  /// Bytes behind the end record.
  ZipBuilder& Suffix(std::string bytes) { return With(*this, suffix_, std::move(bytes)); }
  /// A Zip64 end record and its locator before the end record, which is then all ones.
  ZipBuilder& Zip64End() { return With(*this, zip64_end_, true); }
  ZipBuilder& End(ZipEndField field, std::uint64_t value) {
    return With(*this, end_fields_[field], value);
  }

  [[nodiscard]] std::string Build() const;

 private:
  using EndFields = std::map<ZipEndField, std::uint64_t>;
  [[nodiscard]] std::string EndRecords(EndFields fields) const;

  std::deque<ZipEntryBuilder> entries_;
  std::string comment_;
  std::string prefix_;
  std::string suffix_;
  bool zip64_end_ = false;
  EndFields end_fields_;
};

/// An extra field record: 16-bit id, 16-bit size, data.
[[nodiscard]] std::string ZipExtra(std::uint16_t id, std::string_view data);

/// An Info-ZIP Unicode path record that names `raw_name` in UTF-8.
[[nodiscard]] std::string UnicodePathExtra(std::string_view raw_name, std::string_view utf8_name);

/// The low `width` bytes of a number, lowest first.
[[nodiscard]] std::string LittleEndianBytes(std::uint64_t value, int width);

}  // namespace zul::test
