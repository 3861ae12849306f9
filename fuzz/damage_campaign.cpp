// Damages twelve images in many ways and judges what is read from each:
//   - no run takes more than 2 s of processor time, nor the program more than 256 MiB (without a
//     sanitizer);
//   - damage behind the header leaves every file whole whose own records, and whose folders'
//     records, are untouched;
//   - where the index has a check value, no file with other contents is read without complaint;
//   - what `index` makes of it is right, see index_judge.h.
//
//   damage_campaign [--every N] [--part K/N] [--random COUNT] [--index COUNT] [--only IMAGE]
//                   [--stage NAME] [--keep FOLDER]
//
// `--every N` takes each N-th damage only; the figures say how many were taken. `--only` takes one
// image, and `--stage` one kind of damage, by their names in the figures; `--keep` puts the damaged
// image of each finding there.
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "capsule/host/error.h"
#include "capsule/host/image_builder.h"
#include "capsule/host/index_writer.h"
#include "capsule/host/verifier.h"
#include "fuzz/damage_cases.h"
#include "fuzz/index_judge.h"
#include "tests/support/ntfs_section.h"
#include "tests/support/temp_dir.h"

namespace capsule::fuzz {
namespace {

constexpr double kMostSeconds = 2;
constexpr long kMostKilobytes = 256L << 10;
constexpr size_t kTruncations = 20'000;  // of each seed
constexpr size_t kVerifyEach = 8;
constexpr size_t kImages = 12;

struct Options {
  size_t every = 1;
  size_t part = 0;
  size_t parts = 1;
  size_t random = 100'000;
  size_t index = 120'000;
  std::string only;
  std::string stage;
  std::string keep;
};

struct Figures {
  size_t runs = 0;
  size_t opened = 0;
  size_t findings = 0;
  size_t unnoticed = 0;  // other contents, but no rule broken and no check value
  double slowest = 0;
};

class Campaign {
 public:
  explicit Campaign(const Options& options) : m_options(options) {}

  void Run(const std::string& name, const std::string& path) {
    if (!m_options.only.empty() && m_options.only != name) return;
    const test::DamageSeed seed(path);
    m_seed = &seed;
    m_name = name;
    Stage("truncations",
          [&](const TakeDamage& take) { VisitTruncations(seed, kTruncations, take); });
    Stage("bytes", [&](const TakeDamage& take) { VisitBytes(seed, take); });
    Stage("random",
          [&](const TakeDamage& take) { VisitRandom(seed, Share(m_options.random), 1, take); });
    m_indexes = true;
    Stage("index",
          [&](const TakeDamage& take) { VisitMutants(seed, Share(m_options.index), 2, take); });
    m_indexes = false;
  }

  bool Finish() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("%zu runs, %zu findings, slowest %.3f s, at most %ld KiB\n", m_runs, m_findings,
                m_slowest, usage.ru_maxrss);
#if !defined(__SANITIZE_ADDRESS__)
    if (usage.ru_maxrss > kMostKilobytes) ++m_findings;
#endif
    return m_findings == 0;
  }

 private:
  // Of `count` damages, those of one image.
  size_t Share(size_t count) const { return m_options.only.empty() ? count / kImages : count; }

  template <typename Visit>
  void Stage(const char* kind, const Visit& visit) {
    if (!m_options.stage.empty() && m_options.stage != kind) return;
    m_figures = {};
    visit([this](const DamageCase& damage) {
      const size_t number = m_case++;
      if (number % m_options.every == 0 &&
          number / m_options.every % m_options.parts == m_options.part) {
        Judge(damage);
      }
    });
    std::printf("%-24s %-12s %8zu runs, %8zu opened, %zu findings, %zu unnoticed, slowest %.3f s\n",
                m_name.c_str(), kind, m_figures.runs, m_figures.opened, m_figures.findings,
                m_figures.unnoticed, m_figures.slowest);
    std::fflush(stdout);
    m_runs += m_figures.runs;
    m_findings += m_figures.findings;
    m_slowest = std::max(m_slowest, m_figures.slowest);
  }

  void Judge(const DamageCase& damage) {
    const std::string path = m_folder / "damaged.cap";
    test::WriteFile(path, damage.bytes);
    const std::clock_t start = std::clock();
    if (m_indexes) {
      JudgeIndex(damage, path);
    } else {
      JudgeReading(damage, path);
    }
    const double seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
    m_figures.slowest = std::max(m_figures.slowest, seconds);
    if (seconds > kMostSeconds) Find(damage, "takes " + std::to_string(seconds) + " s");
    ++m_figures.runs;
  }

  void JudgeReading(const DamageCase& damage, const std::string& path) {
    try {
      const host::Image image(path, host::Opening::Salvage);
      ++m_figures.opened;
      Compare(damage, image);
    } catch (const host::Error& error) {
      if (!damage.isHeader && !m_seed->Untouched(damage.from, damage.to).empty()) {
        Find(damage, std::string("cannot be opened: ") + error.what());
      }
    }
    if (m_figures.runs % kVerifyEach == 0) Verify(path);
  }

  void JudgeIndex(const DamageCase& damage, const std::string& path) {
    const IndexJudgement judgement = JudgeIndexing(*m_seed, path);
    if (judgement.isWritten) ++m_figures.opened;
    if (!judgement.finding.empty()) Find(damage, judgement.finding);
  }

  static void Verify(const std::string& path) {
    try {
      static_cast<void>(host::Verifier(path).Run([](const host::Fault&) {}));
    } catch (const host::Error&) {
    }
  }

  void Compare(const DamageCase& damage, const host::Image& image) {
    const test::Contents found = test::ReadContents(image);
    const test::Contents& whole = m_seed->Whole();
    if (!damage.isHeader) {
      for (const std::string& path : m_seed->Untouched(damage.from, damage.to)) {
        const auto at = found.find(path);
        if (at == found.end() || at->second != whole.at(path)) {
          return Find(damage, path + (at == found.end() ? " is missing" : " is not the same"));
        }
      }
    }
    const bool complains = !image.Problems().empty() || !image.Info().scanReason.empty();
    for (const auto& [path, contents] : found) {
      const auto at = whole.find(path);
      const bool isSame = at != whole.end() && at->second == contents;
      if (isSame || contents == test::kUnread || (at == whole.end() && complains)) continue;
      if (image.Info().checked) return Find(damage, path + " is read as something else");
      ++m_figures.unnoticed;
    }
  }

  void Find(const DamageCase& damage, const std::string& what) {
    ++m_figures.findings;
    std::printf("FINDING %s, %zu to %zu of %zu bytes: %s\n", m_name.c_str(), damage.from, damage.to,
                damage.bytes.size(), what.c_str());
    if (m_options.keep.empty()) return;
    test::WriteFile(m_options.keep + "/" + m_name + "-" + std::to_string(m_case) + ".cap",
                    damage.bytes);
  }

  Options m_options;
  test::TempDir m_folder;
  const test::DamageSeed* m_seed = nullptr;
  std::string m_name;
  bool m_indexes = false;  // what `index` makes of the damage is judged
  Figures m_figures;
  size_t m_case = 0;
  size_t m_runs = 0;
  size_t m_findings = 0;
  double m_slowest = 0;
};

// Two folders as partitions, of files short, long, compressible and not.
void Build(const std::filesystem::path& folder, const std::string& image, int level) {
  namespace fs = std::filesystem;
  std::vector<fs::path> roots;
  for (const char* name : {"first", "second"}) {
    roots.push_back(folder / name);
    const fs::path deep = roots.back() / "sub folder" / "deeper";
    fs::create_directories(deep);
    std::string text;
    for (int i = 0; text.size() < 12000; ++i) text += "line " + std::to_string(i * 7919) + "\n";
    std::ofstream(roots.back() / "lines.txt") << text;
    std::ofstream(deep / "a long name, with a comma.text") << text.substr(3000, 700);
    std::ofstream(deep / "empty");
    std::ofstream(roots.back() / "SHORT.TXT") << "x";
  }
  host::BuildOptions options;
  options.level = level;
  host::ImageBuilder builder(image, options);
  for (const fs::path& root : roots) builder.AddDirectory(root);
  static_cast<void>(builder.Finish());
}

// An NTFS partition of a real volume whose folders have compressed index blocks.
void BuildNtfs(const std::string& image) {
  const test::NtfsVolume volume(test::UnpackVolume("vol_flat.ntfs"));
  test::ForeignImage foreign({});
  PutNtfsSection(foreign, volume, {});
  const test::Bytes bytes = foreign.Finish();
  test::WriteFile(image, std::string(bytes.begin(), bytes.end()));
}

bool RunAll(const Options& options) {
  const test::TempDir folder;
  Campaign campaign(options);
  const auto sample = [&](const std::string& name, bool isIndexed) {
    const std::string path = folder / "seed.cap";
    test::WriteFile(path, test::ReadFile(CAPSULE_TEST_DATA "/images/" + name));
    if (isIndexed) static_cast<void>(host::IndexWriter(path).Write());
    campaign.Run(name + (isIndexed ? ", indexed" : ""), path);
  };
  for (const char* name : {"w_names.img", "w_files_only.img", "w_three_open.img", "f_16384_lzs.img",
                           "h_compact_scrambled.img", "n_flat_old.img"}) {
    sample(name, false);
  }
  sample("faults/n_synthetic.img", false);
  sample("w_names.img", true);
  sample("h_compact_scrambled.img", true);
  const std::string ntfs = folder / "ntfs.cap";
  BuildNtfs(ntfs);
  campaign.Run("NTFS volume", ntfs);
  for (const int level : {0, 5}) {
    const std::string path = folder / "built.cap";
    Build(folder / ("level" + std::to_string(level)), path, level);
    campaign.Run("built at level " + std::to_string(level), path);
  }
  return campaign.Finish();
}

}  // namespace
}  // namespace capsule::fuzz

int main(int argc, char** argv) {
  capsule::fuzz::Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    char* end = nullptr;
    const size_t value = std::strtoul(argv[i + 1], &end, 10);
    if (name == "--every") options.every = std::max<size_t>(value, 1);
    if (name == "--random") options.random = value;
    if (name == "--index") options.index = value;
    if (name == "--only") options.only = argv[i + 1];
    if (name == "--stage") options.stage = argv[i + 1];
    if (name == "--keep") options.keep = argv[i + 1];
    if (name == "--part") {
      options.part = value;
      options.parts = std::max<size_t>(std::strtoul(end + (*end == '/' ? 1 : 0), nullptr, 10), 1);
    }
  }
  return capsule::fuzz::RunAll(options) ? 0 : 1;
}
