// The part that does not depend on the system.

#include "core/system_error.h"

namespace zul {

std::error_code SystemError(unsigned long number) {
  return {static_cast<int>(number), std::system_category()};
}

std::string DescribeSystemError(const std::error_code& code) {
  return "code=" + std::to_string(code.value()) + ", message='" + SystemErrorText(code) + "'";
}

}  // namespace zul
