#pragma once

// The status codes of the archive library, by name and as text.

#include <cstdint>
#include <string_view>

namespace zul {

/// A status of minizip-ng (mz.h).
using ZipStatus = std::int32_t;

inline constexpr ZipStatus kZipOk = 0;
inline constexpr ZipStatus kZipDataError = -3;
inline constexpr ZipStatus kZipMemoryError = -4;
inline constexpr ZipStatus kZipEndOfList = -100;
inline constexpr ZipStatus kZipEndOfStream = -101;
inline constexpr ZipStatus kZipBadParameter = -102;
inline constexpr ZipStatus kZipFormatError = -103;
inline constexpr ZipStatus kZipCrcError = -105;
inline constexpr ZipStatus kZipOpenError = -111;
inline constexpr ZipStatus kZipSeekError = -113;
inline constexpr ZipStatus kZipReadError = -115;

/// The text of a status in messages; "unknown error" for a number that is not in the list.
[[nodiscard]] std::string_view ZipStatusText(ZipStatus status);

}  // namespace zul
