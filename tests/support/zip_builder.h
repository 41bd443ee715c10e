#pragma once

// Small archives for tests, made in memory: right by default, and wrong in exactly the fields that
// a test names. The hostile ones are rows of tests/rig/hostile_archives.py.
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

enum class ZipField {
  kSignature,
  kFlags,
  kLocalOffset,  ///< central only
};

class ZipEntryBuilder {
 public:
  ZipEntryBuilder(std::string name, std::string data)
      : name_(std::move(name)), data_(std::move(data)) {}

  ZipEntryBuilder& Deflated() { return With(deflated_, true); }
  /// Sizes and offset in a Zip64 extra record, all ones in the fields themselves.
  ZipEntryBuilder& Zip64() { return With(zip64_, true); }
  /// Puts a number into the local header, or into the record of the central directory.
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
  /// What stands alike in both, from the version needed on: fields, name and extra records.
  [[nodiscard]] std::string Header(const Fields& wrong, std::string_view between,
                                   std::string_view zip64_offset) const;

  std::string name_;
  std::string data_;
  bool deflated_ = false;
  bool zip64_ = false;
  Fields local_;
  Fields central_;
};

class ZipBuilder {
 public:
  /// The entry stays valid as long as the builder.
  ZipEntryBuilder& File(std::string name, std::string data) {
    return entries_.emplace_back(std::move(name), std::move(data));
  }
  [[nodiscard]] std::string Build() const;

 private:
  std::deque<ZipEntryBuilder> entries_;
};

/// An extra field record: 16-bit id, 16-bit size, data.
[[nodiscard]] std::string ZipExtra(std::uint16_t id, std::string_view data);

/// An Info-ZIP Unicode path record that names `raw_name` in UTF-8.
[[nodiscard]] std::string UnicodePathExtra(std::string_view raw_name, std::string_view utf8_name);

[[nodiscard]] std::uint32_t Crc32(std::string_view bytes);

}  // namespace zul::test
