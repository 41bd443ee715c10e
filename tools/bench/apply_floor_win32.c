// The minimal work of an apply: for each file a flushed backup of the target, a flushed copy beside
// it, and a rename over it. It has no checks, no retries, no window and no trace.
//
//   apply_floor.exe list staged target backup
//
// `list` is a file of relative paths, one a line, in ASCII and with backslashes. All targets and
// all folders of the backup must exist. Prints the seconds of the work. Exits with 1 at the first
// failure.

#include <windows.h>

#include <stdio.h>

static wchar_t source[1024], target[1024], backup[1024], temporary[1024];
static char buffer[1 << 20];

static int CopyFlushed(const wchar_t* from, const wchar_t* to) {
  HANDLE in = CreateFileW(from, GENERIC_READ, FILE_SHARE_READ, NULL, OPEN_EXISTING,
                          FILE_FLAG_SEQUENTIAL_SCAN, NULL);
  HANDLE out = CreateFileW(to, GENERIC_WRITE, 0, NULL, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, NULL);
  if (in == INVALID_HANDLE_VALUE || out == INVALID_HANDLE_VALUE) return 0;
  DWORD read = 0;
  DWORD written = 0;
  do {
    if (!ReadFile(in, buffer, sizeof buffer, &read, NULL)) return 0;
    if (read > 0 && (!WriteFile(out, buffer, read, &written, NULL) || written != read)) return 0;
  } while (read == sizeof buffer);
  return FlushFileBuffers(out) && CloseHandle(out) && CloseHandle(in);
}

static int Join(wchar_t* out, const wchar_t* folder, const char* name, const wchar_t* suffix) {
  return _snwprintf(out, 1024, L"%ls\\%hs%ls", folder, name, suffix) > 0;
}

int wmain(int argc, wchar_t** argv) {
  if (argc != 5) return 3;
  FILE* list = _wfopen(argv[1], L"rb");
  if (list == NULL) return 3;
  LARGE_INTEGER frequency, begin, end;
  QueryPerformanceFrequency(&frequency);
  QueryPerformanceCounter(&begin);
  char name[512];
  while (fgets(name, sizeof name, list) != NULL) {
    name[strcspn(name, "\r\n")] = '\0';
    if (!Join(source, argv[2], name, L"") || !Join(target, argv[3], name, L"") ||
        !Join(backup, argv[4], name, L"") || !Join(temporary, argv[3], name, L".new") ||
        !CopyFlushed(target, backup) || !CopyFlushed(source, temporary) ||
        !MoveFileExW(temporary, target, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
      fprintf(stderr, "%s: error %lu\n", name, GetLastError());
      return 1;
    }
  }
  QueryPerformanceCounter(&end);
  printf("%.6f\n", (double)(end.QuadPart - begin.QuadPart) / (double)frequency.QuadPart);
  return 0;
}
