// SPDX-License-Identifier: Apache-2.0
// What one answer costs that is put into the record of recent answers, by how many services the record knows and how
// many keys clients have stored; and what a set of one more key costs.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "daemon/Kelvane.h"
#include "operations/KelvanePurgeableOperation.h"
#include "platform/Limits.h"
#include "protocols/Keys.h"
#include "support/KelvaneLog.h"

namespace kelvane {

namespace {

/// How many answers come at once.
constexpr int burst = 32;
constexpr std::int64_t purgeableBytes = 65536;
/// What each of the clients' keys holds.
constexpr std::size_t keyBytes = 100;

void note(const std::string& volume, std::int64_t service) {
  KelvanePurgeableOperation::updateServiceStats(
      "com.example.bench." + std::to_string(service),
      Value::Dictionary{{keys::amount, purgeableBytes + service}, {keys::volume, volume}});
}

/// Has clients' state be so many keys, and no record.
void storeKeys(const Kelvane& registry, std::int64_t count) {
  registry.defaults_queue().sync([&] {
    SharedRegistry& shared = SharedRegistry::sharedKelvane();
    shared.clientSetStateSync(Value(), keys::recentServiceStats);
    for (std::int64_t key = 0; key < static_cast<std::int64_t>(limits::stateKeys) - 1; ++key) {
      const std::string name = "com.example.bench." + std::to_string(key);
      shared.clientSetStateSync(key < count ? Value(std::string(keyBytes, '.')) : Value(), name);
    }
  });
}

/// Reads, validates, changes, archives and stores, as every answer of every service does.
void recordUpdate(benchmark::State& state, const Kelvane& registry, const std::string& volume) {
  const std::int64_t services = state.range(0);
  storeKeys(registry, state.range(1));
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

/// On its queue and in memory.
void stateSet(benchmark::State& state, const Kelvane& registry) {
  storeKeys(registry, state.range(0));
  std::uint64_t number = 0;
  for (auto _ : state) {
    registry.defaults_queue().sync([&] {
      for (int set = 0; set < burst; ++set) {
        SharedRegistry::sharedKelvane().clientSetStateSync(Value(++number), "com.example.bench.changing");
      }
    });
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
      ->ArgsProduct({{1, 10, 100, 1000}, {0}})
      ->Args({1, kelvane::limits::stateKeys - 1})
      ->Args({100, kelvane::limits::stateKeys - 1})
      ->MeasureProcessCPUTime();
  benchmark::RegisterBenchmark("stateSet", kelvane::stateSet, std::cref(*registry))
      ->Arg(0)
      ->Arg(kelvane::limits::stateKeys - 1)
      ->MeasureProcessCPUTime();
  benchmark::RunSpecifiedBenchmarks();
}
