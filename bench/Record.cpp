// SPDX-License-Identifier: Apache-2.0
// What one answer costs that is put into the record of recent answers, by how many services the record knows.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "daemon/Kelvane.h"
#include "operations/KelvanePurgeableOperation.h"
#include "protocols/Keys.h"
#include "support/KelvaneLog.h"

namespace kelvane {

namespace {

/// How many answers come at once.
constexpr int burst = 32;
constexpr std::int64_t purgeableBytes = 65536;

void note(const std::string& volume, std::int64_t service) {
  KelvanePurgeableOperation::updateServiceStats(
      "com.example.bench." + std::to_string(service),
      Value::Dictionary{{keys::amount, purgeableBytes + service}, {keys::volume, volume}});
}

/// Reads, validates, changes, archives and stores, as every answer of every service does.
void recordUpdate(benchmark::State& state, const Kelvane& registry, const std::string& volume) {
  const std::int64_t services = state.range(0);
  registry.defaults_queue().sync(
      [&] { SharedRegistry::sharedKelvane().clientSetStateSync(Value(), keys::recentServiceStats); });
  for (std::int64_t service = 0; service < services; ++service) {
    note(volume, service);
  }
  registry.defaults_queue().sync([] {});
  std::int64_t service = 0;
  for (auto _ : state) {
    for (int answer = 0; answer < burst; ++answer) {
      note(volume, service++ % services);
    }
    registry.defaults_queue().sync([] {});
  }
  state.SetItemsProcessed(state.iterations() * burst);
}

}  // namespace

}  // namespace kelvane

int main(int count, char** arguments) {
  if (count < 2) {
    std::fprintf(stderr, "Usage: bench-record VOLUME [OPTION...]\n");
    return 2;
  }
  const std::string volume = arguments[1];
  std::swap(arguments[0], arguments[1]);
  --count;
  benchmark::Initialize(&count, arguments + 1);
  // Where nothing says what to log, all would be.
  kelvane::configureLog();
  const auto registry = kelvane::Kelvane::init();
  benchmark::RegisterBenchmark("recordUpdate", kelvane::recordUpdate, std::cref(*registry), volume)
      ->RangeMultiplier(10)
      ->Range(1, 1000)
      ->MeasureProcessCPUTime();
  benchmark::RunSpecifiedBenchmarks();
}
