// Measures the codec beside its peers on the same chunks, in one run, and prints a table.
//
//   codec_bench CORPUS-DIRECTORY [Google Benchmark's options]
//
// The time is that of the thread (CPU time), the figure the best of the repetitions, in million
// bytes of plain data a second.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <span>

#include "bench/coder.h"
#include "bench/worst_cases.h"
#include "capsule/compression/decompress_pair.h"
#include "capsule/compression/lzs.h"

namespace capsule::bench {
namespace {

const char* const kCorpora[] = {"text", "executables", "mixed", "zeros", "random"};

struct Coded {
  std::vector<unsigned char> bytes;
  std::vector<uint32_t> sizes;
};

std::vector<unsigned char> ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Compresses all chunks into `coded`, which has room for that; false on failure.
bool CompressAll(Coder& coder, const std::vector<unsigned char>& plain, Coded& coded) {
  size_t written = 0;
  coded.sizes.clear();
  coder.BeginCompress();
  for (size_t at = 0; at < plain.size(); at += kChunkSize) {
    const auto size = static_cast<uint32_t>(std::min<size_t>(kChunkSize, plain.size() - at));
    const uint32_t count = coder.Compress(plain.data() + at, size, coded.bytes.data() + written);
    if (count == 0) return false;
    written += count;
    coded.sizes.push_back(count);
  }
  benchmark::ClobberMemory();
  return true;
}

bool DecompressAll(Coder& coder, const Coded& coded, std::vector<unsigned char>& plain) {
  size_t at = 0;
  size_t read = 0;
  coder.BeginDecompress();
  for (const uint32_t count : coded.sizes) {
    const auto size = static_cast<uint32_t>(std::min<size_t>(kChunkSize, plain.size() - at));
    if (!coder.Decompress(coded.bytes.data() + read, count, plain.data() + at, size)) return false;
    at += size;
    read += count;
  }
  benchmark::ClobberMemory();
  return at == plain.size();
}

size_t RoomFor(size_t plain) { return plain + plain / 4 + kChunkRoom; }

void BenchCompress(benchmark::State& state, const CoderKind* kind, const std::string& path) {
  const std::vector<unsigned char> plain = ReadFile(path);
  const std::unique_ptr<Coder> coder = kind->make(kind->level);
  Coded coded{std::vector<unsigned char>(RoomFor(plain.size()), 1), {}};
  if (plain.empty()) state.SkipWithError("no such input");
  for (auto _ : state)
    if (!CompressAll(*coder, plain, coded)) state.SkipWithError("compression failed");
  size_t total = 0;
  for (const uint32_t size : coded.sizes) total += size;
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(plain.size()));
  state.counters["size"] = 100.0 * static_cast<double>(total) / static_cast<double>(plain.size());
}

void BenchDecompress(benchmark::State& state, const CoderKind* kind, const std::string& path) {
  const std::vector<unsigned char> plain = ReadFile(path);
  const std::unique_ptr<Coder> coder = kind->make(kind->level);
  Coded coded{std::vector<unsigned char>(RoomFor(plain.size()), 1), {}};
  std::vector<unsigned char> out(plain.size(), 1);
  if (plain.empty() || !CompressAll(*coder, plain, coded)) state.SkipWithError("no such input");
  for (auto _ : state)
    if (!DecompressAll(*coder, coded, out)) state.SkipWithError("decompression failed");
  if (out != plain) state.SkipWithError("what came out is not what went in");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(plain.size()));
}

// One half of an input: its chunks as units of one history, and the calls that decode them.
struct Half {
  Half(Coder& coder, std::span<const unsigned char> part)
      : plain(part.begin(), part.end()),
        out(plain.size(), 1),
        coded{std::vector<unsigned char>(RoomFor(plain.size()), 1), {}},
        history(LzsSizeOfDecompressionHistory()) {
    isGood = CompressAll(coder, plain, coded);
  }
  void Begin() {
    LzsInitDecompressionHistory(history.data());
    calls.clear();
    size_t at = 0;
    const unsigned char* source = coded.bytes.data();
    for (const uint32_t count : coded.sizes) {
      const auto size = static_cast<uint32_t>(std::min<size_t>(kChunkSize, plain.size() - at));
      calls.push_back({source, out.data() + at, count, size, history.data(), 0});
      at += size;
      source += count;
    }
  }
  std::vector<unsigned char> plain;
  std::vector<unsigned char> out;
  Coded coded;
  std::vector<unsigned char> history;
  std::vector<lzs::DecompressHandles> calls;
  bool isGood;
};

bool GoesOn(const lzs::DecompressHandles& call) { return (call.result & LzsUnitComplete) != 0; }

// The two halves of an input by turns, `unitsAtOnce` of each side by side, or with 0 each alone.
void BenchHalves(benchmark::State& state, const CoderKind* kind, const std::string& path,
                 size_t unitsAtOnce) {
  const std::vector<unsigned char> plain = ReadFile(path);
  const std::unique_ptr<Coder> coder = kind->make(kind->level);
  const size_t middle = plain.size() / 2 / kChunkSize * kChunkSize;
  Half first(*coder, std::span(plain).first(middle));
  Half second(*coder, std::span(plain).subspan(middle, middle));
  if (!first.isGood || !second.isGood || middle == 0) state.SkipWithError("no such input");
  for (auto _ : state) {
    first.Begin();
    second.Begin();
    const size_t step = std::max<size_t>(unitsAtOnce, 1);
    for (size_t at = 0; at < first.calls.size(); at += step) {
      const size_t count = std::min(step, first.calls.size() - at);
      const auto a = std::span(first.calls).subspan(at, count);
      const auto b = std::span(second.calls).subspan(at, count);
      lzs::DecompressPair(a, unitsAtOnce == 0 ? b.first(0) : b, GoesOn);
      if (unitsAtOnce == 0) lzs::DecompressPair(a.first(0), b, GoesOn);
    }
    benchmark::ClobberMemory();
  }
  if (first.out != first.plain || second.out != second.plain)
    state.SkipWithError("what came out is not what went in");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(2 * middle));
}

void BenchWorstCompress(benchmark::State& state, const WorstInput* input, const CoderKind* kind) {
  const std::vector<unsigned char> plain = input->make();
  const std::unique_ptr<Coder> coder = kind->make(kind->level);
  Coded coded{std::vector<unsigned char>(RoomFor(plain.size()), 1), {}};
  for (auto _ : state)
    if (!CompressAll(*coder, plain, coded)) state.SkipWithError("compression failed");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(plain.size()));
  state.counters["steps"] = ChainStepsPerByte(plain, static_cast<uint32_t>(kind->level));
}

void BenchWorstDecompress(benchmark::State& state, const WorstStream* stream,
                          const CoderKind* kind) {
  const WorstUnit unit = stream->make();
  const std::unique_ptr<Coder> coder = kind->make(kind->level);
  std::vector<unsigned char> out(unit.plainSize);
  for (auto _ : state) {
    coder->BeginDecompress();
    if (!coder->Decompress(unit.bytes.data(), static_cast<uint32_t>(unit.bytes.size()), out.data(),
                           unit.plainSize))
      state.SkipWithError("decompression failed");
  }
  // Work is bounded by input plus output, so that is what counts here.
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(unit.plainSize + unit.bytes.size()));
}

// Keeps the best figure of each benchmark, and prints the tables at the end.
class TableReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      if (run.error_occurred) {
        std::fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
        m_failed = true;
        continue;
      }
      const std::string name = run.run_name.function_name;
      const auto speed = run.counters.find("bytes_per_second");
      if (speed != run.counters.end())
        m_best[name] = std::max(m_best[name], speed->second.value / 1e6);
      for (const char* counter : {"size", "steps"}) {
        const auto found = run.counters.find(counter);
        if (found != run.counters.end()) m_values[name] = found->second.value;
      }
    }
  }
  bool HasFailed() const { return m_failed; }
  double Best(const std::string& name) const {
    const auto found = m_best.find(name);
    return found == m_best.end() ? 0 : found->second;
  }
  void PrintTables() const;

 private:
  void PrintSpeeds(const char* verb, bool decodersOnly) const;
  void PrintSizes() const;
  void PrintRatios() const;
  void PrintPairs() const;
  void PrintWorst() const;
  std::map<std::string, double> m_best;
  std::map<std::string, double> m_values;
  bool m_failed = false;
};

std::string NameOf(const char* verb, const CoderKind& kind, const std::string& corpus) {
  return std::string(verb) + "/" + kind.name + "/" + corpus;
}

void TableReporter::PrintSpeeds(const char* verb, bool decodersOnly) const {
  std::printf("\n| %s, MB/s |", verb);
  for (const char* corpus : kCorpora) std::printf(" %s |", corpus);
  std::printf("\n|---|---:|---:|---:|---:|---:|\n");
  for (const CoderKind& kind : AllCoders()) {
    if (decodersOnly && !kind.decodes) continue;
    std::printf("| %s |", kind.name.c_str());
    for (const char* corpus : kCorpora) std::printf(" %.0f |", Best(NameOf(verb, kind, corpus)));
    std::printf("\n");
  }
}

void TableReporter::PrintSizes() const {
  std::printf("\n| compressed size, %% |");
  for (const char* corpus : kCorpora) std::printf(" %s |", corpus);
  std::printf("\n|---|---:|---:|---:|---:|---:|\n");
  for (const CoderKind& kind : AllCoders()) {
    std::printf("| %s |", kind.name.c_str());
    for (const char* corpus : kCorpora) {
      const auto found = m_values.find(NameOf("compress", kind, corpus));
      std::printf(" %.1f |", found == m_values.end() ? 0.0 : found->second);
    }
    std::printf("\n");
  }
}

struct Ratio {
  const char* what;
  const char* ours;
  const char* theirs;
  double wanted;
};

const Ratio kRatios[] = {
    {"decompress : zlib's inflate", "decompress/capsule 255", "decompress/zlib 6", 2.0},
    {"decompress : libdeflate", "decompress/capsule 255", "decompress/libdeflate 6", 1.0},
    {"compress 0 : zlib 1", "compress/capsule 0", "compress/zlib 1", 2.5},
    {"compress 0 : libdeflate 1", "compress/capsule 0", "compress/libdeflate 1", 1.3},
    {"compress 7 : zlib 6", "compress/capsule 7", "compress/zlib 6", 2.5},
    {"compress 7 : libdeflate 6", "compress/capsule 7", "compress/libdeflate 6", 1.4},
    {"compress 255 : zlib 9", "compress/capsule 255", "compress/zlib 9", 2.0},
    {"compress 255 : libdeflate 9", "compress/capsule 255", "compress/libdeflate 9", 1.3},
};

const Ratio kOwnRatios[] = {
    {"compress 0, random : text", "compress/capsule 0/random", "compress/capsule 0/text", 0.5},
    {"compress 7, random : text", "compress/capsule 7/random", "compress/capsule 7/text", 0.5},
    {"compress 255, random : text", "compress/capsule 255/random", "compress/capsule 255/text",
     0.5},
    {"decompress, random : text", "decompress/capsule 255/random", "decompress/capsule 255/text",
     1.0},
    {"decompress zeros : memcpy", "decompress/capsule 255/zeros", "decompress/memcpy/zeros", 0.5},
};

struct PairKind {
  const char* verb;
  size_t unitsAtOnce;
};
const PairKind kPairs[] = {
    {"decompress in turn", 0}, {"decompress 1 beside 1", 1}, {"decompress 16 beside 16", 16}};

void TableReporter::PrintRatios() const {
  std::printf("\n| ratio | wanted | text | executables | mixed |\n|---|---:|---:|---:|---:|\n");
  for (const Ratio& ratio : kRatios) {
    std::printf("| %s | %.1f |", ratio.what, ratio.wanted);
    for (const char* corpus : {"/text", "/executables", "/mixed"})
      std::printf(" %.2f |", Best(std::string(ratio.ours) + corpus) /
                                 Best(std::string(ratio.theirs) + corpus));
    std::printf("\n");
  }
  std::printf("\n| ratio | wanted | measured |\n|---|---:|---:|\n");
  for (const Ratio& ratio : kOwnRatios)
    std::printf("| %s | %.1f | %.2f |\n", ratio.what, ratio.wanted,
                Best(ratio.ours) / Best(ratio.theirs));
}

// Time per byte, as a multiple of that of text.
void TableReporter::PrintWorst() const {
  std::printf(
      "\n| worst case | MB/s | time per byte, text = 1 | chain steps a byte |\n"
      "|---|---:|---:|---:|\n");
  for (const auto& [name, speed] : m_best) {
    if (name.rfind("worst ", 0) != 0) continue;
    const std::string base = name.substr(6, name.rfind('/') - 6);  // verb/coder
    const auto steps = m_values.find(name);
    std::printf("| %s | %.0f | %.1f |", name.c_str() + 6, speed, Best(base + "/text") / speed);
    if (steps != m_values.end())
      std::printf(" %.1f |\n", steps->second);
    else
      std::printf(" |\n");
  }
}

// Speeds of units side by side, and their ratio to the same units in turn.
void TableReporter::PrintPairs() const {
  std::printf("\n| units of two histories, MB/s (ratio) |");
  for (const char* corpus : kCorpora) std::printf(" %s |", corpus);
  std::printf("\n|---|---:|---:|---:|---:|---:|\n");
  for (const CoderKind& kind : AllCoders()) {
    if (kind.isPeer) continue;
    for (const PairKind& pair : kPairs) {
      std::printf("| %s, %s |", kind.name.c_str(), pair.verb);
      for (const char* corpus : kCorpora) {
        const double speed = Best(NameOf(pair.verb, kind, corpus));
        std::printf(" %.0f (%.2f) |", speed, speed / Best(NameOf(kPairs[0].verb, kind, corpus)));
      }
      std::printf("\n");
    }
  }
}

void TableReporter::PrintTables() const {
  PrintRatios();
  PrintPairs();
  PrintSpeeds("compress", false);
  PrintSpeeds("decompress", true);
  PrintSizes();
  PrintWorst();
}

void Register(const std::string& directory) {
  for (const char* corpus : kCorpora) {
    const std::string path = directory + "/" + corpus;
    for (const CoderKind& kind : AllCoders()) {
      benchmark::RegisterBenchmark(NameOf("compress", kind, corpus).c_str(), BenchCompress, &kind,
                                   path);
      for (const PairKind& pair : kPairs)
        if (!kind.isPeer)
          benchmark::RegisterBenchmark(NameOf(pair.verb, kind, corpus).c_str(), BenchHalves, &kind,
                                       path, pair.unitsAtOnce);
      if (kind.decodes)
        benchmark::RegisterBenchmark(NameOf("decompress", kind, corpus).c_str(), BenchDecompress,
                                     &kind, path);
    }
  }
  for (const CoderKind& kind : AllCoders()) {
    if (kind.isPeer) continue;
    for (const WorstInput& input : WorstInputs())
      benchmark::RegisterBenchmark(NameOf("worst compress", kind, input.name).c_str(),
                                   BenchWorstCompress, &input, &kind);
    if (kind.level != 255) continue;
    for (const WorstStream& stream : WorstStreams())
      benchmark::RegisterBenchmark(NameOf("worst decompress", kind, stream.name).c_str(),
                                   BenchWorstDecompress, &stream, &kind);
  }
}

}  // namespace
}  // namespace capsule::bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc != 2) {
    std::fprintf(stderr, "usage: codec_bench CORPUS-DIRECTORY [--benchmark_...]\n");
    return 2;
  }
  capsule::bench::Register(argv[1]);
  capsule::bench::TableReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintTables();
  return reporter.HasFailed() ? 1 : 0;
}
