// Damages images, lets the index writer at them, and judges what comes of it, with and without its
// being forced:
//   - what it refuses stays as it is, to the byte and to the time of its last change;
//   - what it writes opens strictly, and is called sound by verifying and by opening or by neither;
//   - no file that could be read gets lost;
//   - of images with check values: no file is read with other contents than it had, and one that is
//     not what it was is called damaged.
//
//   index_campaign [COUNT [IMAGE...]]
//
// COUNT is 2000 by default: single bits of images with check values, as many cuts of the same, and
// as many bytes of samples of other writers. Given images, it damages bytes of these alone.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "capsule/container/header_format.h"
#include "capsule/host/error.h"
#include "capsule/host/image_builder.h"
#include "capsule/host/index_writer.h"
#include "capsule/host/verifier.h"
#include "tests/support/damage_seed.h"
#include "tests/support/source_tree.h"
#include "tests/support/temp_dir.h"

namespace capsule::fuzz {
namespace {

namespace fs = std::filesystem;
using host::DamagedSections;

struct Figures {
  size_t named = 0;    // by verifying, before
  size_t refused = 0;  // by the writer
  size_t noted = 0;    // written, and called damaged afterwards
  size_t sound = 0;    // written, and called sound
  size_t findings = 0;
};

bool IsCalledSound(const std::string& path) {
  try {
    return host::Verifier(path).Run([](const host::Fault&) {}).faults == 0;
  } catch (const host::Error&) {
    return false;
  }
}

test::Contents ContentsOf(const std::string& path) {
  try {
    return test::ReadContents(host::Image(path, host::Opening::Salvage));
  } catch (const host::Error&) {
    return {};
  }
}

class Campaign {
 public:
  // `whole`: what the files held; none when the image has no check values.
  Campaign(std::string path, const test::Contents* whole)
      : m_path(std::move(path)), m_whole(whole) {}

  // `place`: what the messages call this damage.
  void Judge(const std::string& bytes, const std::string& place, DamagedSections mode,
             Figures* figures) {
    m_place = place + (mode == DamagedSections::NoteDamage ? ", forced" : "");
    m_figures = figures;
    test::WriteFile(m_path, bytes);
    if (!IsCalledSound(m_path)) ++figures->named;
    const test::Contents before = ContentsOf(m_path);
    const auto time = fs::last_write_time(m_path);
    try {
      static_cast<void>(host::IndexWriter(m_path).Write(mode));
      JudgeWritten(before);
      JudgeAgain(mode);
    } catch (const host::Error&) {
      ++figures->refused;
      const bool isSame = test::ReadFile(m_path) == bytes;
      if (!isSame || fs::last_write_time(m_path) != time) Find("refused, but changed");
    }
  }

 private:
  void JudgeWritten(const test::Contents& before) {
    const bool isSound = IsCalledSound(m_path);
    ++(isSound ? m_figures->sound : m_figures->noted);
    try {
      if (host::Image(m_path).IsWhole() != isSound) Find("verifying and opening disagree");
    } catch (const host::Error& error) {
      Find(error.what());
    }
    const test::Contents after = ContentsOf(m_path);
    for (const auto& [path, contents] : before) {
      const auto now = after.find(path);
      const bool isThere = now != after.end() && now->second == contents;
      if (!isThere && contents != test::kUnread) Find(path + " gets lost");
    }
    if (m_whole == nullptr) return;
    if (isSound && after != *m_whole) Find("called sound, but is not what it was");
    for (const auto& [path, contents] : after) {
      const auto was = m_whole->find(path);
      const bool isSame = was != m_whole->end() && was->second == contents;
      if (!isSame && was != m_whole->end() && contents != test::kUnread) {
        Find(path + " is read as something else");
      }
    }
  }

  // What an index says of damage stays when it is made once more, if that is not refused.
  void JudgeAgain(DamagedSections mode) {
    const bool wasSound = IsCalledSound(m_path);
    try {
      static_cast<void>(host::IndexWriter(m_path).Write(mode));
    } catch (const host::Error&) {
    }
    if (IsCalledSound(m_path) != wasSound) Find("indexed again, it is judged otherwise");
  }

  void Find(const std::string& what) {
    ++m_figures->findings;
    std::printf("FINDING %s: %s\n", m_place.c_str(), what.c_str());
  }

  std::string m_path;
  const test::Contents* m_whole;
  std::string m_place;
  Figures* m_figures = nullptr;
};

std::string Build(const test::TempDir& folder, int level) {
  const fs::path root = folder / ("level" + std::to_string(level));
  const fs::path deep = root / "sub folder" / "deeper";
  fs::create_directories(deep);
  std::ofstream(root / "lines.txt") << test::MixedBytes(30000, 3);
  std::ofstream(root / "SHORT.TXT") << "x";
  std::ofstream(deep / "a long name, with a comma.text") << test::MixedBytes(700, 4);
  std::ofstream(deep / "empty") << "";
  std::ofstream(deep / "last") << test::MixedBytes(9000, 5);
  const std::string image = root.string() + ".cap";
  host::BuildOptions options;
  options.level = level;
  host::ImageBuilder builder(image, options);
  builder.AddDirectory(root);
  static_cast<void>(builder.Finish());
  return image;
}

// One kind of damage, and what came of it.
class Stage {
 public:
  explicit Stage(const char* name) : m_name(name) {}

  void Judge(Campaign& campaign, const std::string& bytes, const std::string& place) {
    ++m_count;
    campaign.Judge(bytes, place, DamagedSections::IndexWhatIsLeft, &m_plain);
    campaign.Judge(bytes, place, DamagedSections::NoteDamage, &m_forced);
  }

  // Whether there was no finding.
  bool Finish() const {
    Print("plain", m_plain);
    Print("forced", m_forced);
    return m_plain.findings + m_forced.findings == 0;
  }

 private:
  void Print(const char* mode, const Figures& figures) const {
    std::printf(
        "%-8s %-8s %zu: %zu named before, %zu refused, %zu noted, %zu sound, %zu findings\n",
        m_name, mode, m_count, figures.named, figures.refused, figures.noted, figures.sound,
        figures.findings);
  }

  const char* m_name;
  size_t m_count = 0;
  Figures m_plain;
  Figures m_forced;
};

bool RunBuilt(const test::TempDir& folder, size_t count) {
  Stage bits("bits");
  Stage cuts("cuts");
  for (const int level : {0, 5}) {
    const test::DamageSeed seed(Build(folder, level));
    Campaign campaign(folder / "damaged.cap", &seed.Whole());
    std::mt19937 random(static_cast<uint32_t>(level));
    for (size_t i = 0; i < count / 2; ++i) {
      std::string bytes = seed.Bytes();
      const size_t at = random() % bytes.size();
      const unsigned bit = random() % 8;
      bytes[at] = static_cast<char>(bytes[at] ^ (1U << bit));
      const std::string place = "level " + std::to_string(level) + ", byte " + std::to_string(at);
      bits.Judge(campaign, bytes, place + ", bit " + std::to_string(bit));
      const size_t cut = kHeaderSize + random() % (bytes.size() - kHeaderSize);
      cuts.Judge(campaign, seed.Bytes().substr(0, cut),
                 "level " + std::to_string(level) + ", cut at " + std::to_string(cut));
    }
  }
  const bool areBitsFine = bits.Finish();
  return cuts.Finish() && areBitsFine;
}

bool RunSamples(const test::TempDir& folder, size_t count,
                const std::vector<std::string>& samples) {
  Stage bytes("samples");
  Campaign campaign(folder / "damaged.cap", nullptr);
  std::mt19937 random(1);
  for (size_t i = 0; i < count; ++i) {
    const std::string& name = samples[i % samples.size()];
    std::string damaged = test::ReadFile(name);
    // Half of the damages lie where the index is lost.
    if (i / samples.size() % 2 == 0) std::fill_n(damaged.begin() + kIndexOffsetOffset, 4, '\0');
    const size_t at = kHeaderSize + random() % (damaged.size() - kHeaderSize);
    damaged[at] = static_cast<char>(random());
    bytes.Judge(campaign, damaged, name + ", byte " + std::to_string(at));
  }
  return bytes.Finish();
}

bool RunAll(size_t count, std::vector<std::string> samples) {
  const test::TempDir folder;
  const bool areBuiltFine = !samples.empty() || RunBuilt(folder, count);
  if (samples.empty()) {
    for (const char* name :
         {"n_flat_old.img", "w_names.img", "h_compact_scrambled.img", "w_three_open.img"}) {
      samples.push_back(std::string(CAPSULE_TEST_DATA "/images/") + name);
    }
  }
  return RunSamples(folder, count, samples) && areBuiltFine;
}

}  // namespace
}  // namespace capsule::fuzz

int main(int argc, char** argv) {
  const size_t count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 2000;
  const std::vector<std::string> images(argv + std::min(argc, 2), argv + argc);
  return capsule::fuzz::RunAll(count, images) ? 0 : 1;
}
