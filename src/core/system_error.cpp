#include "core/system_error.h"

namespace zul {

std::error_code SystemError(unsigned long number) {
  return {static_cast<int>(number), std::system_category()};
}

std::string DescribeSystemError(const std::error_code& code) {
  return "code=" + std::to_string(code.value()) + ", message='" + SystemErrorText(code) + "'";
}

bool IsNotFoundError(const std::error_code& code) {
  const ErrorMeaning meaning = MeaningOf(code);
  return meaning == ErrorMeaning::kFileNotFound || meaning == ErrorMeaning::kPathNotFound;
}

bool IsExistsError(const std::error_code& code) {
  return MeaningOf(code) == ErrorMeaning::kExists;
}

bool IsLockedOrDeniedError(const std::error_code& code) {
  const ErrorMeaning meaning = MeaningOf(code);
  return meaning == ErrorMeaning::kAccessDenied || meaning == ErrorMeaning::kInUse;
}

}  // namespace zul
