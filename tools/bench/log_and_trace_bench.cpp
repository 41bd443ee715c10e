// Log lines and trace events a second, written into a real file.

#include <benchmark/benchmark.h>

#include <string>

#include "core/logger.h"
#include "core/text.h"
#include "tests/support/environment.h"
#include "tests/support/temp_folder.h"
#include "trace/chain_events.h"

namespace {

void LogLine(benchmark::State& state) {
  const zul::test::TempFolder folder;
  zul::Logger logger;
  if (!logger.Configure(zul::PathToUtf8(folder.path()), "bench")) {
    state.SkipWithError("no log file");
    return;
  }
  while (state.KeepRunning()) {
    logger.Log(zul::LogCategory::kUpdater, zul::LogLevel::kInfo, "replaced '", "color_engine.dll",
               "' after 1 attempt");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(LogLine);

void TraceEvent(benchmark::State& state) {
  const zul::test::TempFolder folder;
  const zul::test::ScopedEnvironment home("QORVA_CONFIG_HOME", zul::PathToUtf8(folder.path()));
  while (state.KeepRunning()) {
    zul::EmitChainEvent("download_progress", {{"origin_role", "primary"},
                                              {"bytes_downloaded", "104857600"},
                                              {"elapsed_ms", "1000"},
                                              {"avg_throughput_bps", "104857600"}});
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(TraceEvent);

}  // namespace
