#include "transfer/checksum.h"

#include <vector>

#include "core/file_layer.h"
#include "core/text.h"
#include "trace/chain_events.h"
#include "transfer/sha256.h"

namespace zul {

namespace {

constexpr std::size_t kReadBufferBytes = 65536;
constexpr unsigned kReadsPerKeepAlive = 16;  // a MiB

std::string HexText(const Sha256Digest& digest) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string hex;
  hex.reserve(digest.size() * 2);
  for (const std::uint8_t byte : digest) {
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 15];
  }
  return hex;
}

bool HashOpenFile(fs::File& file, Sha256Digest& digest, std::string& error,
                  const fs::KeepAlive& keep_alive) {
  Sha256 hash;
  if (!hash.Begin(error)) return false;
  std::vector<unsigned char> buffer(kReadBufferBytes);
  std::error_code ec;
  std::size_t read = 0;
  unsigned reads = 0;
  // A read error ends the file: the digest of what was there matches nothing.
  while (file.Read(buffer.data(), buffer.size(), &read, ec) && read != 0) {
    if (!hash.Update(buffer.data(), read, error)) return false;
    if (keep_alive && ++reads % kReadsPerKeepAlive == 0) keep_alive();
  }
  return hash.Finish(digest, error);
}

}  // namespace

bool ComputeFileSha256(const std::filesystem::path& path, std::string& hex, std::string* error,
                       const fs::KeepAlive& keep_alive) {
  hex.clear();
  std::string reason;
  Sha256Digest digest;
  std::error_code ec;
  fs::File file = fs::OpenForRead(path, ec);
  if (!file.is_open()) {
    reason = "Cannot open file for SHA-256.";
  } else if (HashOpenFile(file, digest, reason, keep_alive)) {
    hex = HexText(digest);
    return true;
  }
  if (error != nullptr) *error = reason;
  return false;
}

bool VerifyFileSha256(const std::filesystem::path& path, std::string_view expected,
                      std::string* error, const fs::KeepAlive& keep_alive) {
  std::string hex;
  if (!ComputeFileSha256(path, hex, error, keep_alive)) return false;
  if (AsciiLower(TrimWhitespace(expected)) == hex) return true;
  if (error != nullptr) *error = "Downloaded package checksum mismatch.";
  return false;
}

bool VerifyPackageChecksum(const ChecksumStageContext& context, std::string_view origin_role) {
  if (context.progress_window != nullptr) {
    context.progress_window->set_status("Verifying update package...",
                                        "Checking downloaded package SHA-256.", 100);
  }
  const auto emit = [&origin_role](std::string phase, ChainEventField detail) {
    std::vector<ChainEventField> fields = {
        {"phase", phase}, {"checksum_stage", phase}, {"origin_role", std::string(origin_role)}};
    if (!detail.first.empty()) fields.push_back(std::move(detail));
    EmitChainEvent("checksum_verify", fields);
  };
  emit("start", {"sha256_expected", context.request.sha256});
  if (!VerifyFileSha256(context.package_path, context.request.sha256, &context.stage_error,
                        KeepingAlive(context.progress_window))) {
    emit("fail", {"error", context.stage_error});
    return false;
  }
  emit("ok", {});
  return true;
}

}  // namespace zul
