// The steps of an install and of a verification that touch neither network nor payload, timed on the real
// checkpoint's own headers ("/1") and on 4 and 16 times as much. Every figure comes with `peak_bytes`, by how
// much the step raises the memory in use. The names ending in "_usual" do the same job the usual way, for
// comparison in the same run.

#include <array>
#include <string>
#include <vector>

#include "Benchmarks/CountedMemory.h"
#include "Benchmarks/RealInputs.h"
#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>
#include <openssl/evp.h>

#include "VellicorFormat/MorlenResidentIndexV1.h"
#include "VellicorLab/TemporaryDirectory.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"
#include "VellicorRepackCore/Install/RangeCopyPlanner.h"
#include "VellicorRepackCore/Output/ResidentWriter.h"

namespace vellicor::bench {
namespace {

using benchmark::State;

constexpr std::int64_t chunkBytes = 67108864;

int scaleOf(const State& state) { return static_cast<int>(state.range(0)); }

template <typename Work>
void measure(State& state, Work work) {
  state.counters["peak_bytes"] = CountedMemory::peakGrowth(work);
  for (auto _ : state) benchmark::DoNotOptimize(work());
  state.SetComplexityN(state.range(0));
}

// ---- Digests: of as many MiB ----

std::string mebibytes(const State& state) {
  return std::string(static_cast<std::size_t>(state.range(0)) << 20, 'a');
}

void sha256(State& state) {
  const std::string bytes = mebibytes(state);
  measure(state, [&] { return hashData(bytes); });
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes.size()) * state.iterations());
}

void sha256Usual(State& state) {
  const std::string bytes = mebibytes(state);
  measure(state, [&] {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int size = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1)
      state.SkipWithError("no SHA-256");
    return digest;
  });
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes.size()) * state.iterations());
}

// ---- Reading the source ----

void sourceReading(State& state) {
  const RealSnapshot snapshot(scaleOf(state));
  const TemporaryDirectory directory;
  snapshot.write(directory.path());
  measure(state, [&] { return snapshot.parse(directory.path()); });
}

// ---- Planning ----

RealSnapshot::Parsed parsedSnapshot(int scale) {
  const RealSnapshot snapshot(scale);
  const TemporaryDirectory directory;
  snapshot.write(directory.path());
  return snapshot.parse(directory.path());
}

RangeCopyPlan rangePlan(const RepackPlan& plan) {
  return RangeCopyPlanner::plan(plan, chunkBytes, "identity", std::nullopt);
}

/// Everything between the parsed headers and the first request, fingerprint included.
void planning(State& state) {
  const RealSnapshot::Parsed parsed = parsedSnapshot(scaleOf(state));
  measure(state, [&] {
    const RepackPlan plan = repackPlan(parsed);
    return rangePlan(plan);
  });
}

void repackPlanning(State& state) {
  const RealSnapshot::Parsed parsed = parsedSnapshot(scaleOf(state));
  measure(state, [&] { return repackPlan(parsed); });
}

void rangePlanning(State& state) {
  const RepackPlan plan = realPlan(scaleOf(state));
  measure(state, [&] { return rangePlan(plan); });
}

void fingerprint(State& state) {
  const RangeCopyPlan plan = rangePlan(realPlan(scaleOf(state)));
  measure(state, [&] {
    return RangeCopyPlanner::canonicalFingerprint(plan.coalescedCopies, "/models/checkpoint.artifact.partial",
                                                  chunkBytes, "identity", std::nullopt,
                                                  plan.residentIndexSha256, plan.expectedOutputs);
  });
}

// ---- Records ----

void residentIndexEncode(State& state) {
  const ResidentFilePlan plan = residentPlan(scaleOf(state));
  measure(state, [&] { return ResidentWriter::encodeIndex(plan); });
}

void residentIndexDecode(State& state) {
  using Codec = MorlenResidentIndexCodec;
  const std::vector<std::byte> region = ResidentWriter::encodeIndex(residentPlan(scaleOf(state)));
  measure(state, [&] { return Codec::decodeRegion(region, Codec::decodeHeader(region)); });
}

void layoutEncode(State& state) {
  const MorlenPackedExpertsLayoutV1 layout = realLayout(scaleOf(state));
  measure(state, [&] { return MorlenPackedExpertsLayoutCodec::encode(layout); });
}

void layoutDecode(State& state) {
  const std::string text = MorlenPackedExpertsLayoutCodec::encode(realLayout(scaleOf(state)));
  measure(state, [&] { return MorlenPackedExpertsLayoutCodec::decode(text); });
  state.counters["text_bytes"] = static_cast<double>(text.size());
}

void layoutValidate(State& state) {
  const MorlenPackedExpertsLayoutV1 layout = realLayout(scaleOf(state));
  measure(state, [&] {
    MorlenV1StructuralValidator::validate(layout);
    return 0;
  });
}

void layoutEncodeUsual(State& state) {
  const auto tree = nlohmann::json::parse(MorlenPackedExpertsLayoutCodec::encode(realLayout(scaleOf(state))));
  measure(state, [&] { return tree.dump(2); });
}

void layoutDecodeUsual(State& state) {
  const std::string text = MorlenPackedExpertsLayoutCodec::encode(realLayout(scaleOf(state)));
  measure(state, [&] { return nlohmann::json::parse(text); });
}

struct Benchmark {
  const char* name;
  void (*run)(State& state);
};

constexpr std::array growing = {Benchmark{"sha256", sha256},
                                Benchmark{"sha256_usual", sha256Usual},
                                Benchmark{"source_reading", sourceReading},
                                Benchmark{"repack_planning", repackPlanning},
                                Benchmark{"range_planning", rangePlanning},
                                Benchmark{"fingerprint", fingerprint},
                                Benchmark{"resident_index_encode", residentIndexEncode},
                                Benchmark{"resident_index_decode", residentIndexDecode},
                                Benchmark{"layout_encode", layoutEncode},
                                Benchmark{"layout_decode", layoutDecode},
                                Benchmark{"layout_validate", layoutValidate}};

/// At the real size only: the resident index of an install has a cap, and trees take gigabytes.
constexpr std::array real = {Benchmark{"planning", planning},
                             Benchmark{"layout_encode_usual", layoutEncodeUsual},
                             Benchmark{"layout_decode_usual", layoutDecodeUsual}};

void registerAll() {
  for (const auto& [name, run] : growing) {
    benchmark::RegisterBenchmark(name, run)
        ->RangeMultiplier(4)
        ->Range(1, 16)
        ->Unit(benchmark::kMillisecond)
        ->Complexity(benchmark::oNLogN);
  }
  for (const auto& [name, run] : real)
    benchmark::RegisterBenchmark(name, run)->Arg(1)->Unit(benchmark::kMillisecond);
}

}  // namespace
}  // namespace vellicor::bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  vellicor::bench::registerAll();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
