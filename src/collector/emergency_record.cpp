#include "collector/emergency_record.h"

#include <bit>
#include <nlohmann/json.hpp>

#include "collector/session_directory.h"

namespace zul {

static_assert(std::endian::native == std::endian::little);

fs::File CreateEmergencyFile(const fs::Path& session_directory, std::error_code& ec) {
  return fs::CreateNewWriteThrough(session_directory / kEmergencyFile, ec);
}

bool WriteEmergencyRecord(fs::File& file, const EmergencyRecord& record) noexcept {
  std::error_code ec;
  std::size_t written = 0;
  const bool whole =
      file.WriteSome(&record, sizeof record, &written, ec) && written == sizeof record;
  return file.Flush(ec) && whole;
}

void MergeEmergencyRecord(const EmergencyRecord& emergency, nlohmann::json* record) {
  const bool terminated = emergency.kind == static_cast<std::uint32_t>(EmergencyKind::kTerminate);
  (*record)["exception_observed"] = true;
  (*record)["exception_code"] = emergency.exception_code;
  (*record)["thread_id"] = emergency.thread_id;
  (*record)["event"] = terminated ? "std_terminate" : "native_exception";
}

void ReadEmergencyFile(const fs::Path& session_directory, nlohmann::json* record) {
  const fs::Path path = session_directory / kEmergencyFile;
  std::error_code ec;
  if (fs::KindOf(path, fs::Links::kDoNotFollow, ec) != fs::EntryKind::kRegular ||
      fs::SizeOf(path, ec) != sizeof(EmergencyRecord)) {
    return;
  }
  fs::File file = fs::OpenForRead(path, ec);
  constexpr EmergencyRecord kValid;
  EmergencyRecord emergency;
  std::size_t read = 0;
  if (file.is_open() && file.Read(&emergency, sizeof emergency, &read, ec) &&
      read == sizeof emergency && emergency.magic == kValid.magic &&
      emergency.size == kValid.size) {
    MergeEmergencyRecord(emergency, record);
  }
}

}  // namespace zul
