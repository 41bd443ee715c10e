#include "core/sha256.h"

#include <windows.h>

#include <wincrypt.h>

#include "core/failure.h"

namespace zul {

// An HCRYPTPROV and an HCRYPTHASH are the same integer type, closed by different calls.
struct Sha256::State {
  HCRYPTPROV provider = 0;
  HCRYPTHASH hash = 0;

  State() = default;
  ~State() {
    if (hash != 0) ::CryptDestroyHash(hash);
    if (provider != 0) ::CryptReleaseContext(provider, 0);
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;
};

Sha256::Sha256() : state_(std::make_unique<State>()) {}
Sha256::~Sha256() = default;

bool Sha256::Begin(std::string* error) {
  if (!::CryptAcquireContextA(&state_->provider, nullptr, nullptr, PROV_RSA_AES,
                              CRYPT_VERIFYCONTEXT)) {
    return Fail(error, "CryptAcquireContext failed.");
  }
  if (!::CryptCreateHash(state_->provider, CALG_SHA_256, 0, 0, &state_->hash)) {
    return Fail(error, "CryptCreateHash failed.");
  }
  return true;
}

bool Sha256::Update(const void* data, std::size_t size, std::string* error) {
  if (!::CryptHashData(state_->hash, static_cast<const BYTE*>(data), static_cast<DWORD>(size), 0)) {
    return Fail(error, "CryptHashData failed.");
  }
  return true;
}

bool Sha256::Finish(Sha256Digest* digest, std::string* error) {
  auto size = static_cast<DWORD>(digest->size());
  if (!::CryptGetHashParam(state_->hash, HP_HASHVAL, digest->data(), &size, 0) ||
      size != digest->size()) {
    return Fail(error, "CryptGetHashParam failed.");
  }
  return true;
}

}  // namespace zul
