// Reading the bootloader's features file: one machine start-up per iteration.
#include <benchmark/benchmark.h>

#include <string>

#include "BenchSupport.h"
#include "Sentrel/TarnFeatureSm.h"

using namespace SentrelBench;

namespace {

void BM_FeaturesFile(benchmark::State &state) {
   auto const lines = state.range(0);
   ScratchDir dir;
   std::string text;
   for (long i = 0; i < lines; ++i) text += "feature" + std::to_string(i) + ":" + std::to_string(i % 100) + "\n";
   String const path = dir.file("features", text);
   auto const em = Loom::make<Ledger::EntityManager>();
   // Not supported: no deprecation check, only the file.
   auto const sb = Loom::make<Tarn::Secureboot::Status>();
   for (auto _ : state) {
      auto status = Loom::make<Tarn::Features::Status>();
      status->featuresFilePathIs(path);
      auto sm = Sentrel::TarnFeatureSm::TarnFeatureSmIs(em, status, sb);
      if (status->featureRev().size() != std::size_t(lines)) state.SkipWithError("lines lost");
   }
   state.SetItemsProcessed(state.iterations() * lines);
   state.SetComplexityN(lines);
}
BENCHMARK(BM_FeaturesFile)->Arg(10)->Arg(1000)->Arg(100000)->Complexity(benchmark::oN);

}  // namespace
