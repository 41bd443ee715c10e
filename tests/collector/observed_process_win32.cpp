#include "tests/collector/observed_process_win32.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <winternl.h>

#include <array>
#include <sstream>

#include "collector/evidence_record.h"
#include "core/system_library_win32.h"
#include "core/text.h"

namespace zul::test {

namespace {

using nlohmann::json;

constexpr DWORD kPatienceMs = 30000;
constexpr const char* kPrivateFolder = "Kancelář Nováková";
constexpr const char* kInstallFolder = "QORVA RIP žluť";

std::wstring Quoted(const std::wstring& text) {
  return L'"' + text + L'"';
}

struct Pipe {
  UniqueKernelHandle read;
  UniqueKernelHandle write;
};

Pipe MakePipe() {
  HANDLE read = nullptr;
  HANDLE write = nullptr;
  EXPECT_TRUE(::CreatePipe(&read, &write, nullptr, 0));
  return {UniqueKernelHandle(read), UniqueKernelHandle(write)};
}

std::string ReadLine(HANDLE from) {
  std::string line;
  char byte = 0;
  DWORD read = 0;
  while (::ReadFile(from, &byte, 1, &read, nullptr) && read == 1 && byte != '\n') line += byte;
  return line;
}

/// Without standard handles where there are none.
UniqueKernelHandle Start(std::wstring command, HANDLE input, HANDLE output) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  if (input != nullptr) {
    for (const HANDLE handle : {input, output}) {
      ::SetHandleInformation(handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    }
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = input;
    startup.hStdOutput = output;
  }
  PROCESS_INFORMATION process{};
  EXPECT_TRUE(::CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW,
                               nullptr, nullptr, &startup, &process))
      << ::GetLastError();
  const UniqueKernelHandle thread(process.hThread);
  return UniqueKernelHandle(process.hProcess);
}

template <typename Signature>
SystemFunction<Signature> Native(const char* name) {
  const SystemFunction<Signature> function(L"ntdll.dll", name);
  EXPECT_TRUE(function) << name;
  return function;
}

/// One object in the memory of a process.
template <typename Object>
Object Peek(HANDLE process, const void* address) {
  Object object{};
  EXPECT_TRUE(::ReadProcessMemory(process, address, &object, sizeof object, nullptr));
  return object;
}

/// The command line of a process, where it keeps it itself.
std::wstring CommandLineOf(HANDLE process) {
  PROCESS_BASIC_INFORMATION basic{};
  const auto query = Native<decltype(::NtQueryInformationProcess)>("NtQueryInformationProcess");
  EXPECT_EQ(query(process, ProcessBasicInformation, &basic, sizeof basic, nullptr), 0);
  const auto environment = Peek<PEB>(process, basic.PebBaseAddress);
  const auto line =
      Peek<RTL_USER_PROCESS_PARAMETERS>(process, environment.ProcessParameters).CommandLine;
  std::wstring text(line.Length / sizeof(wchar_t), L'\0');
  EXPECT_TRUE(::ReadProcessMemory(process, line.Buffer, text.data(), line.Length, nullptr));
  return text;
}

UniqueKernelHandle CopyFrom(HANDLE process, std::uintptr_t value) {
  HANDLE copy = nullptr;
  EXPECT_TRUE(::DuplicateHandle(process, reinterpret_cast<HANDLE>(value), ::GetCurrentProcess(),
                                &copy, 0, FALSE, DUPLICATE_SAME_ACCESS));
  return UniqueKernelHandle(copy);
}

std::string UserName() {
  std::array<wchar_t, 256> name{};
  auto units = static_cast<DWORD>(name.size());
  return ::GetUserNameW(name.data(), &units) ? WideToUtf8Lossy(name.data()) : "";
}

/// The bytes of the text in UTF-16.
std::string Utf16Bytes(std::string_view text) {
  const std::wstring wide = Utf8ToWide(text).value_or(L"");
  return {reinterpret_cast<const char*>(wide.data()), wide.size() * sizeof(wchar_t)};
}

}  // namespace

fs::Path Built(std::string_view relative) {
  std::array<wchar_t, 4096> self{};
  ::GetModuleFileNameW(nullptr, self.data(), static_cast<DWORD>(self.size()));
  const fs::Path build = fs::Path(self.data()).parent_path().parent_path().parent_path();
  return (build / relative).make_preferred();
}

Scene::Scene() : install_(folder_ / kPrivateFolder / *PathFromUtf8(kInstallFolder)) {
  WriteFile(Observer(), ReadFile(Built("src/app/qorva_updater.exe")));
}

fs::Path Scene::CrashFolder(std::string_view name) const {
  const fs::Path crash = folder_ / kPrivateFolder / name;
  std::error_code ec;
  EXPECT_TRUE(fs::CreateDirectories(crash, ec)) << ec.message();
  return crash;
}

ObservedProcess::ObservedProcess(const Scene& scene, const fs::Path& crash_folder,
                                 std::string_view way, const fs::Path& program) {
  Pipe input = MakePipe();
  Pipe output = MakePipe();
  std::wstring command = Quoted(program.native());
  for (const std::wstring& argument :
       {crash_folder.native(), scene.install().native(), *Utf8ToWide(way), *Utf8ToWide(kSecret)}) {
    command += L' ' + Quoted(argument);
  }
  process_ = Start(command, input.read.get(), output.write.get());
  input_ = std::move(input.write);
  output.write.Reset();
  start_ = json::parse(ReadLine(output.read.get()), nullptr, false);
  EXPECT_TRUE(start_.is_object()) << "it did not start";
}

ObservedProcess::~ObservedProcess() {
  ::TerminateProcess(process_.get(), 1);
  ::WaitForSingleObject(process_.get(), kPatienceMs);
}

fs::Path ObservedProcess::session() const {
  return PathFromUtf8(start_.value("session", "")).value_or(fs::Path());
}

UniqueKernelHandle ObservedProcess::OpenObserver() const {
  const json record = Record(session(), "collector.json");
  return UniqueKernelHandle(
      ::OpenProcess(PROCESS_ALL_ACCESS, FALSE, static_cast<DWORD>(record.value("pid", 0u))));
}

SharedObjects::SharedObjects(HANDLE observer) {
  const std::wstring command = CommandLineOf(observer);
  const std::size_t arguments = command.rfind(L"--observe ");
  std::array<std::uintptr_t, 3> values{};
  std::wistringstream text(command.substr(std::min(arguments, command.size())));
  std::wstring mode;
  text >> mode >> values[0] >> values[1] >> values[2];
  mapping = CopyFrom(observer, values[0]);
  crash_event = CopyFrom(observer, values[1]);
  ready_event = CopyFrom(observer, values[2]);
  block = MapBlock(mapping.get());
}

UniqueKernelHandle StartProgram(const fs::Path& program, const std::wstring& arguments) {
  return Start(Quoted(program.native()) + L' ' + arguments, nullptr, nullptr);
}

DWORD ExitCodeOf(HANDLE process) {
  EXPECT_EQ(::WaitForSingleObject(process, kPatienceMs), WAIT_OBJECT_0) << "it did not end";
  DWORD code = STILL_ACTIVE;
  ::GetExitCodeProcess(process, &code);
  return code;
}

void Suspend(HANDLE process) {
  EXPECT_EQ(Native<LONG NTAPI(HANDLE)>("NtSuspendProcess")(process), 0);
}

void Resume(HANDLE process) {
  EXPECT_EQ(Native<LONG NTAPI(HANDLE)>("NtResumeProcess")(process), 0);
}

json Record(const fs::Path& session, std::string_view name) {
  json record = json::object();
  std::string error;
  EXPECT_TRUE(ReadEvidenceRecord(session / name, &record, &error)) << name << ": " << error;
  return record;
}

std::string Told(const json& record, std::initializer_list<const char*> keys) {
  std::string told;
  for (const char* key : keys) {
    const json value = record.value(key, json("-"));
    told +=
        (told.empty() ? "" : " ") + (value.is_string() ? value.get<std::string>() : value.dump());
  }
  return told;
}

void ExpectNothingPrivate(const fs::Path& folder) {
  std::error_code ec;
  for (const fs::DirectoryEntry& entry : fs::ListDirectory(folder, ec)) {
    const std::string bytes = ReadFile(entry.path);
    for (const std::string& text :
         {std::string(kSecret), std::string(kPrivateFolder), std::string(kInstallFolder),
          std::string("qorva-test-"), UserName()}) {
      EXPECT_EQ(bytes.find(text), bytes.npos) << PathToUtf8(entry.path) << " holds " << text;
      EXPECT_EQ(bytes.find(Utf16Bytes(text)), bytes.npos) << PathToUtf8(entry.path) << " " << text;
    }
  }
}

}  // namespace zul::test
