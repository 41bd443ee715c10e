#pragma once

// An installation, a package for it, and a world in which one run of the driver takes place. The
// disk is real. The network, other processes and the user are fakes with state; they write down
// what the run asked of them, in order.

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>

#include "apply/self_replace.h"
#include "core/file_hash.h"
#include "core/lock_file.h"
#include "core/text.h"
#include "request/update_request.h"
#include "tests/support/file_tricks.h"
#include "tests/support/trace_reader.h"
#include "tests/support/zip_builder.h"
#include "tests/transfer/scripted_transport.h"
#include "tests/ui/fake_screen.h"
#include "transfer/url_policy.h"
#include "update/dialogs.h"
#include "update/driver.h"
#include "update/update_run.h"

namespace zul::test {

inline const std::string kMirrorUrl =
    "https://" + DefaultUpdateDownloadHosts().back() + "/package.zip";
inline constexpr const char* kUpdaterName = "qorva_updater.exe";
inline constexpr const char* kNextCopyName = "qorva_updater.next.exe";
inline constexpr const char* kClaimName = "._qorva_update_in_progress";

class UpdateScene {
 public:
  UpdateScene() {
    request.pid = 7;
    request.download_url = "https://" + DefaultUpdateDownloadHosts().front() + "/package.zip";
    request.target_dir = PathToUtf8(install);
    request.restart_exe = PathToUtf8(install / "qorva_gui.exe");
    request.required_payload_files = {"qorva_gui.exe"};
    Install("qorva_gui.exe", "old program");
    Install("colors.dat", "old colors");
    Install(kUpdaterName, "old updater");
    Install("qorva_installation.json", "{}");
    Serve({{"qorva_gui.exe", "new program"},
           {"colors.dat", "new colors"},
           {kUpdaterName, "new updater"},
           {"a/new.dat", "new"}});
    FillWorld();
  }

  // --- What a test may change before the run

  UpdateRequest request;
  std::wstring more_argument;  ///< after those of the request
  ScriptedTransport primary, mirror;
  std::string relaunch_error, wait_error, replace_error, launch_error;
  bool relaunched = false;
  bool replaced_at_next_start = false;  ///< the updater's file is in use
  ApplyFaultInjection faults;
  bool other_updater_runs = false;  ///< and has claimed the installation
  bool application_runs = false;
  BoxAnswer answer = BoxAnswer::kOther;
  bool browser_works = true, clipboard_works = true;
  UpdateWorld world;

  UpdateScene& Install(const char* name, const char* contents = "") {
    WriteFile(install / name, contents);
    return *this;
  }
  UpdateScene& Uninstall(const char* name) {
    std::error_code ec;
    EXPECT_TRUE(fs::Remove(install / name, ec)) << name;
    return *this;
  }

  /// Both origins serve a package of `files`.
  void Serve(const Files& files) {
    payload = files;
    ZipBuilder zip;
    for (const auto& [name, contents] : files) zip.File(name, contents).Deflated();
    ServeBytes(zip.Build());
  }

  /// Both origins serve `bytes`, and the request has their digest and `query` in its URL.
  void ServeBytes(const std::string& bytes, const char* query = "") {
    primary.chunks = mirror.chunks = {bytes};
    WriteFile(folder / "served", bytes);
    EXPECT_TRUE(ComputeFileSha256(folder / "served", &request.sha256, nullptr));
    request.download_url += query;
  }

  /// The request names a mirror, which serves the package too.
  UpdateScene& NameMirror(const std::string& url = kMirrorUrl) {
    request.fallback_download_url = url;
    return *this;
  }

  /// The updater that runs is the installed one: no copy outside has taken over.
  UpdateScene& RunFromInside() {
    world.own_executable = install / kUpdaterName;
    return *this;
  }

  // --- The run

  int Run() {
    std::vector<std::wstring> arguments = {L"updater.exe"};
    for (const auto& [prefix, value] : ListUpdateSwitches(request)) {
      arguments.push_back(*Utf8ToWide(std::string(prefix) + value));
    }
    if (!more_argument.empty()) arguments.push_back(more_argument);
    return RunWith(arguments);
  }

  int RunWith(const std::vector<std::wstring>& arguments) {
    installed = FilesBelow(install);
    std::vector<const wchar_t*> argv;
    for (const std::wstring& argument : arguments) argv.push_back(argument.c_str());
    return RunUpdateDriver(world, static_cast<int>(argv.size()), argv.data());
  }

  // --- What the run left

  std::string calls;            ///< what was asked of the world, in order
  std::string claimed_calls;    ///< those during which no other updater could have started
  std::string report;           ///< "stage: message" of the report
  bool next_copy_left = false;  ///< the updater's staged copy, at the time of the report
  std::string boxes;            ///< "style: text" of each, the style as its number
  std::string opened, copied, printed;
  Files installed;  ///< before the run

  /// The names of the trace's events.
  std::string Events() const {
    std::vector<std::string> names;
    for (const std::string& event : trace.Events())
      names.push_back(event.substr(0, event.find(' ')));
    return JoinText(names, " ");
  }

  /// Lines "title | detail | percent" of the window, without those that have figures.
  std::string Titles() const {
    std::string titles;
    for (const std::string& paint : screen_.paints) {
      const std::string title = paint.substr(0, paint.size() - 3) + "\n";
      if (paint.ends_with(" | ") && !titles.ends_with(title)) titles += title;
    }
    return titles;
  }

  /// What the workspace of the run holds, one level; "-" without a workspace.
  std::string Kept() const {
    const fs::Path workspace = Workspace();
    if (workspace.empty()) return "-";
    std::set<std::string> names;
    std::error_code ec;
    for (const auto& entry : fs::ListDirectory(workspace, ec))
      names.insert(PathToUtf8(entry.path.filename()));
    return JoinText(names, " ");
  }

  /// "old", "new", or "neither" for the installed files, without the updater's staged copy.
  std::string Installed() const {
    Files now = FilesBelow(install);
    now.erase(kNextCopyName);
    if (now == installed) return "old";
    Files updated = payload;
    updated.insert(installed.begin(), installed.end());
    return now == updated ? "new" : "neither";
  }

  fs::Path Workspace() const {
    std::error_code ec;
    const std::vector<fs::DirectoryEntry> entries = fs::ListDirectory(temp, ec);
    return entries.empty() ? fs::Path() : entries.front().path;
  }

  /// A text with "/" in paths and without what differs from run to run or between systems.
  std::string Plain(std::string text) const {
    const auto replace = [&text](const std::string& part, const char* by) {
      if (part.empty()) return;
      for (std::size_t at; (at = text.find(part)) != text.npos;) text.replace(at, part.size(), by);
    };
    replace(apply_error_, "<apply error>");
    replace(PathToUtf8(install), "<install>");
    std::replace(text.begin(), text.end(), '\\', '/');
    return std::regex_replace(text, std::regex("code=[0-9]+, message='[^']+'"), "code=N");
  }

  const TraceInTempFolder trace;
  const TempFolder& folder = trace.folder();
  const fs::Path install = folder / "install", temp = folder / "temp";
  Files payload;  ///< of the package

 private:
  void Note(std::string_view call) {
    const auto append = [call](std::string* to) {
      to->append(to->empty() ? "" : " ").append(call);
    };
    append(&calls);
    std::error_code ec;
    using Result = fs::LockFile::Result;
    const bool is_folder = Exists(install / kClaimName / "x");
    if (!is_folder && fs::LockFile().Take(install / kClaimName, ec) == Result::kHeld) {
      append(&claimed_calls);
    }
  }

  /// The answer of a fake that fails with `error` unless that is empty.
  static bool Answer(const std::string& error, std::string* out) {
    if (!error.empty() && out != nullptr) *out = error;
    return error.empty();
  }

  void ExpectButtonWithdrawn() const {
    const bool offered = screen_.window != nullptr && screen_.window->force_visible();
    EXPECT_FALSE(offered) << "Force close is still offered";
  }

  void FillWorld() {
    world.own_executable = folder / "elsewhere" / kUpdaterName;
    world.classify_current_process = [this] {
      return ClassifyInstallTarget(PathToUtf8(world.own_executable));
    };
    world.relaunch_from_target_if_needed = [this](const auto& given, bool* done, auto* error) {
      Note("isolate");
      EXPECT_EQ(given, request);
      *done = relaunched;
      std::error_code ec;
      if (other_updater_runs) static_cast<void>(other_updater_.Take(install / kClaimName, ec));
      return Answer(relaunch_error, error);
    };
    world.download_package = [this](auto url, auto& file, auto role, auto* result, auto* error,
                                    auto* window, auto& progress, auto& cancel) {
      const bool from_mirror = role == "rf_fallback";
      Note(from_mirror ? "mirror" : "primary");
      EXPECT_EQ(url, from_mirror ? request.fallback_download_url : request.download_url);
      EXPECT_FALSE(Exists(file)) << "a package that was refused";
      ScriptedTransport& transport = from_mirror ? mirror : primary;
      const DownloadWorld network{transport, [&transport] { return transport.now_ms; }};
      const DownloadJob job{url, file, role, window, progress, cancel};
      return DownloadPackageOver(network, job, result, error);
    };
    world.wait_for_main_process = [this](auto pid, auto timeout_ms, auto* error, bool pump) {
      Note("wait");
      EXPECT_TRUE(pid == request.pid && timeout_ms == 180000 && pump);
      return Answer(wait_error, error);
    };
    world.apply_staged_update = [this](auto& staged, auto& target, auto pid, auto* context,
                                       bool sign, auto* error, auto* outcome, auto*) {
      Note("apply");
      EXPECT_EQ(context->progress_window, screen_.window);
      screen_.window->set_force_close_available(true);
      const bool ok =
          ApplyStagedUpdate(staged, target, pid, context, sign, error, outcome, &faults);
      if (!ok) apply_error_ = *error;
      return ok;
    };
    world.replace_updater_deferred = [this](auto& source, auto& target, auto* error) {
      Note("replace-self");
      EXPECT_EQ(ReadFile(source), "new updater");
      if (replaced_at_next_start) return true;
      if (!replace_error.empty()) return Answer(replace_error, error);
      return ReplaceUpdaterDeferred(source, target, error);
    };
    world.launch_application = [this](auto exe, auto arguments, auto* error) {
      ExpectButtonWithdrawn();
      Note("start " + Plain(JoinText(std::vector{exe, arguments}, arguments.empty() ? "" : " ")));
      return Answer(launch_error, error);
    };
    world.show_running_application = [this] {
      Note("show-running");
      return application_runs;
    };
    screen_.on_destroy = [this] { Note("window-gone"); };
    world.create_screen_surface = [this] { return std::make_unique<FakeSurface>(screen_); };
    world.show_box = [this](const std::string& text, BoxStyle style) {
      Note("box");
      boxes += std::to_string(static_cast<int>(style)) + ": " + Plain(text);
      return answer;
    };
    world.open_url_in_browser = [this](std::string_view url) {
      opened += url;
      return browser_works;
    };
    world.copy_text_to_clipboard = [this](std::string_view text) {
      copied += text;
      return clipboard_works;
    };
    world.print = [this](std::string_view text) { printed += text; };
    world.report_updater_error = [this](const auto& given, auto stage, auto message) {
      ExpectButtonWithdrawn();
      EXPECT_EQ(given, request);
      Note("report");
      next_copy_left = Exists(install / kNextCopyName);
      report = std::string(stage) + ": " + Plain(std::string(message));
    };
    world.shutdown_diagnostics = [this] {
      Note("shutdown");
      other_updater_.Release();
    };
  }

  const ScopedEnvironment temp_{kTempVariable, PathToUtf8(temp)};
  fs::LockFile other_updater_;
  FakeScreen screen_;
  std::string apply_error_;
};

}  // namespace zul::test
