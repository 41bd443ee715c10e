#pragma once

// Small archives for tests, built in memory. They are valid except for the fields that a test sets.
// tests/rig/hostile_archives.py has the hostile archives.
//   ZipBuilder zip;
//   zip.File("app.exe", contents).Deflated().Local(ZipField::kFlags, 2);
//   WriteFile(path, zip.Build());

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace zul::test {

/// A field of the local header or of the central directory.
enum class ZipField {
  kSignature,
  kFlags,
  kLocalOffset,  ///< central only
};

/// One entry: stored, unless a call below changes it.
class ZipEntryBuilder {
 public:
  ZipEntryBuilder(std::string name, std::string data)
      : name_(std::move(name)), data_(std::move(data)) {}

  /// Compresses the data.
  ZipEntryBuilder& Deflated() { return With(deflated_, true); }
  /// Puts sizes and offset into a Zip64 extra record; the fields themselves have all bits set.
  ZipEntryBuilder& Zip64() { return With(zip64_, true); }
  /// Sets a field of the local header, or of the record in the central directory.
  ZipEntryBuilder& Local(ZipField field, std::uint64_t value) { return With(local_[field], value); }
  ZipEntryBuilder& Central(ZipField field, std::uint64_t value) {
    return With(central_[field], value);
  }

 private:
  friend class ZipBuilder;
  using Fields = std::map<ZipField, std::uint64_t>;

  template <typename Member>
  ZipEntryBuilder& With(Member& member, Member value) {
    member = value;
    return *this;
  }
  [[nodiscard]] std::string Packed() const;
  /// The common part of both headers, from "version needed" on: fields, name and extra records.
  [[nodiscard]] std::string Header(const Fields& wrong, std::string_view between,
                                   std::string_view zip64_offset) const;

  std::string name_;
  std::string data_;
  bool deflated_ = false;
  bool zip64_ = false;
  Fields local_;
  Fields central_;
};

/// The whole archive.
class ZipBuilder {
 public:
  /// Adds an entry. The reference is valid as long as the builder.
  ZipEntryBuilder& File(std::string name, std::string data) {
    return entries_.emplace_back(std::move(name), std::move(data));
  }
  /// The bytes of the archive.
  [[nodiscard]] std::string Build() const;

 private:
  std::deque<ZipEntryBuilder> entries_;
};

/// An extra field record: 16-bit id, 16-bit size, data.
[[nodiscard]] std::string ZipExtra(std::uint16_t id, std::string_view data);

/// An Info-ZIP Unicode path record: the UTF-8 name for the entry with the name `raw_name`.
[[nodiscard]] std::string UnicodePathExtra(std::string_view raw_name, std::string_view utf8_name);

/// The CRC-32 of `bytes`, as archives use it.
[[nodiscard]] std::uint32_t Crc32(std::string_view bytes);

}  // namespace zul::test
