// Entry names: decoding, normalisation and the collision rules.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "package/zip_names.h"
#include "package/zip_scan.h"

namespace {

// The same name in each encoding that archives use.
constexpr const char* kAscii = "resources/icc/coated_fogra39_matte.icc";
constexpr const char* kUtf8 = "ресурсы/профили/мелованная_бумага.icc";
constexpr const char* kCp866 =
    "\xE0\xA5\xE1\xE3\xE0\xE1\xEB/\xAF\xE0\xAE\xE4\xA8\xAB\xA8/\xAC\xA5\xAB\xAE\xA2\xA0\xAD\xAD\xA0"
    "\xEF.icc";

void DecodeName(benchmark::State& state, const char* raw) {
  while (state.KeepRunning()) benchmark::DoNotOptimize(zul::DecodeZipEntryName(raw, {}));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(DecodeName, ascii, kAscii);
BENCHMARK_CAPTURE(DecodeName, utf8, kUtf8);
BENCHMARK_CAPTURE(DecodeName, code_page, kCp866);

void NormalizeName(benchmark::State& state, const char* name) {
  std::string path;
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(zul::NormalizeZipEntryPath(name, false, &path));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(NormalizeName, ascii, kAscii);
BENCHMARK_CAPTURE(NormalizeName, utf8, kUtf8);

/// Entries in folders of 80, three levels deep.
void CheckCollisions(benchmark::State& state) {
  std::vector<zul::ZipEntryRecord> entries(static_cast<std::size_t>(state.range(0)));
  for (std::size_t i = 0; i < entries.size(); ++i) {
    entries[i].path = "Resources/Swatches/Book " + std::to_string(i / 80) + "/Colour " +
                      std::to_string(i) + ".json";
  }
  while (state.KeepRunning()) {
    std::string error;
    if (!zul::CheckZipPathCollisions(entries, &error)) state.SkipWithError(error.c_str());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(CheckCollisions)->Arg(1'000)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);

}  // namespace
