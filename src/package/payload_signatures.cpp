#include "package/payload_signatures.h"

#include "core/failure.h"
#include "core/file_layer.h"
#include "core/system_error.h"
#include "core/text.h"
#include "package/layout.h"

namespace zul {

namespace {

// winerror.h: TRUST_E_NOSIGNATURE, TRUST_E_SUBJECT_FORM_UNKNOWN, TRUST_E_PROVIDER_UNKNOWN.
constexpr std::uint32_t kTrustNoSignature = 0x800B0100;
constexpr std::uint32_t kTrustSubjectFormUnknown = 0x800B0003;
constexpr std::uint32_t kTrustProviderUnknown = 0x800B0001;

std::string_view SignatureStatusWord(PayloadSignatureStatus status) {
  switch (status) {
    case PayloadSignatureStatus::kValid:
      return "valid";
    case PayloadSignatureStatus::kUnsigned:
      return "unsigned";
    case PayloadSignatureStatus::kInvalid:
      return "invalid";
    case PayloadSignatureStatus::kVerificationError:
      return "verification_error";
  }
  return "unknown";
}

/// One pass over a staged tree.
class SignaturePass {
 public:
  SignaturePass(const fs::Path& staged_root, const PayloadSignatureVerifier& verifier,
                std::vector<std::string>* verified_files, std::string* error,
                const KeepAlive& keep_alive)
      : staged_root_(staged_root),
        verifier_(verifier),
        verified_files_(verified_files),
        error_(error),
        keep_alive_(keep_alive) {}

  bool Run() {
    fs::TreeWalker walker(staged_root_);
    fs::DirectoryEntry entry;
    std::error_code ec;
    bool started = false;
    while (walker.Next(&entry, ec)) {
      started = true;
      if (keep_alive_) keep_alive_();
      if (IsRegularFile(entry) && !Check(entry.path)) return false;
    }
    if (!ec) return true;
    if (started) {
      return Fail(error_, "Update payload signature enumeration failed: " + SystemErrorText(ec));
    }
    return Fail(error_, "Cannot enumerate staged update tree for signature validation: '" +
                            PathToUtf8(staged_root_) + "' (" + DescribeSystemError(ec) + ")");
  }

 private:
  /// A link counts as its target. An entry of unknown type is an error and not skipped: it may be
  /// an unsigned binary.
  static bool IsRegularFile(const fs::DirectoryEntry& entry) {
    if (entry.kind != fs::EntryKind::kLink && entry.kind != fs::EntryKind::kUnknown) {
      return entry.kind == fs::EntryKind::kRegular;
    }
    std::error_code ec;
    const fs::EntryKind kind = fs::KindOf(entry.path, fs::Links::kFollow, ec);
    if (kind == fs::EntryKind::kUnknown) {
      throw std::filesystem::filesystem_error("cannot inspect staged entry", entry.path, ec);
    }
    return kind == fs::EntryKind::kRegular;
  }

  bool Check(const fs::Path& path) {
    std::error_code ec;
    if (resolved_root_.empty()) resolved_root_ = fs::WeaklyCanonical(staged_root_, ec);
    const fs::Path resolved = ec ? fs::Path() : fs::WeaklyCanonical(path, ec);
    if (ec) {
      return Fail(error_, "Cannot resolve staged relative path during signature validation for '" +
                              PathToUtf8(path) + "' (" + DescribeSystemError(ec) + ")");
    }
    const fs::Path relative = resolved.lexically_relative(resolved_root_);
    if (!IsSafeRelativePath(relative)) {
      return Fail(error_,
                  "Staged update contains an unsafe payload path during signature validation: '" +
                      PathToUtf8(relative.empty() ? path : relative) + "'");
    }
    return !IsSignedFileName(relative) || Verify(resolved, PathToGenericUtf8(relative));
  }

  bool Verify(const fs::Path& resolved, std::string relative) {
    const UpdatePayloadBinarySignatureResult result = verifier_(PathToUtf8(resolved));
    std::string refusal;
    if (result.status != PayloadSignatureStatus::kValid) {
      refusal = "Staged update binary is not signed by a trusted publisher: '" + relative + "' (";
      refusal += SignatureStatusWord(result.status);
      if (!result.detail.empty()) refusal += ": " + result.detail;
      refusal += ")";
    }
    if (verified_files_ != nullptr) verified_files_->push_back(std::move(relative));
    return refusal.empty() || Fail(error_, std::move(refusal));
  }

  const fs::Path& staged_root_;
  const PayloadSignatureVerifier& verifier_;
  std::vector<std::string>* const verified_files_;
  std::string* const error_;
  const KeepAlive& keep_alive_;
  fs::Path resolved_root_;
};

}  // namespace

bool IsSignedFileName(const fs::Path& path) {
  const std::string extension = AsciiLower(PathToUtf8(path.extension()));
  return extension == ".exe" || extension == ".dll";
}

bool VerifyStagedPayloadSignatures(const fs::Path& staged_root, bool require_signed,
                                   const PayloadSignatureVerifier& verifier,
                                   std::vector<std::string>* verified_files, std::string* error,
                                   const KeepAlive& keep_alive) {
  if (verified_files != nullptr) verified_files->clear();
  if (!require_signed) return true;
  if (!verifier) {
    return Fail(error, "Update payload binary signature verifier is not configured.");
  }
  return SignaturePass(staged_root, verifier, verified_files, error, keep_alive).Run();
}

UpdatePayloadBinarySignatureResult MapTrustStatus(std::int32_t trust_status) {
  switch (static_cast<std::uint32_t>(trust_status)) {
    case 0:
      return {PayloadSignatureStatus::kValid, "valid", {}};
    case kTrustNoSignature:
    case kTrustSubjectFormUnknown:
    case kTrustProviderUnknown:
      return {PayloadSignatureStatus::kUnsigned, "unsigned", {}};
    default:
      return {PayloadSignatureStatus::kInvalid,
              "WinVerifyTrust status=" + std::to_string(trust_status),
              {}};
  }
}

}  // namespace zul
