#include "apply/self_replace.h"

#include "core/failure.h"
#include "core/system_error.h"
#include "core/text.h"
#include "trace/chain_events.h"

namespace zul {

namespace {

bool FailMove(std::string* error, std::string_view what, const fs::Path& source,
              const fs::Path& target, const std::error_code& ec) {
  return Fail(error, what,
              ": source='" + PathToUtf8(source) + "', target='" + PathToUtf8(target) + "', " +
                  DescribeSystemError(ec) + ".");
}

}  // namespace

fs::Path NextCopyPath(const fs::Path& target) {
  fs::Path name = target.stem();
  name += ".next";
  name += target.extension();
  return target.parent_path() / name;
}

bool ReplaceUpdaterDeferred(const fs::Path& source, const fs::Path& target, std::string* error,
                            const UpdaterMove& move_now, const UpdaterMove& move_later) {
  std::error_code ec;
  if (!fs::Exists(source)) return Fail(error, "Deferred updater source file is missing.");
  if (target.empty()) return Fail(error, "Deferred updater target path is empty.");
  if (move_now(source, target, ec)) return true;
  if (!IsLockedOrDeniedError(ec)) {
    return FailMove(error, "Cannot replace updater file immediately", source, target, ec);
  }
  EmitChainEvent("deferred_self_replace_warning",
                 {{"source", PathToUtf8(source)},
                  {"target", PathToUtf8(target)},
                  {"immediate_error_code", std::to_string(ec.value())},
                  {"immediate_error", SystemErrorText(ec)},
                  {"fallback", "movefileex_replace_existing_delayed_until_reboot"}});
  if (move_later(source, target, ec)) return true;
  return FailMove(error, "Cannot schedule updater replacement on reboot", source, target, ec);
}

}  // namespace zul
