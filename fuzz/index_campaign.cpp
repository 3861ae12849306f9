// Flips single bits of images that have check values, lets the index writer at them, and judges
// what comes of it, with and without its being forced:
//   - what it refuses stays as it is, to the byte and to the time of its last change;
//   - what it writes opens strictly;
//   - no file is read with other contents than it had, nor fewer files than before;
//   - an image that is not what it was is called damaged by verifying and by opening.
//
//   index_campaign [COUNT]      2000 flips by default, shared out evenly among two images
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

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
  Campaign(std::string path, const test::Contents& whole)
      : m_strPath(std::move(path)), m_Whole(whole) {}

  // `place`: what the messages call this damage.
  void Judge(const std::string& bytes, const std::string& place, DamagedSections mode,
             Figures* figures) {
    m_strPlace = place + (mode == DamagedSections::NoteDamage ? ", forced" : "");
    m_pFigures = figures;
    test::WriteFile(m_strPath, bytes);
    if (!IsCalledSound(m_strPath)) ++figures->named;
    const test::Contents before = ContentsOf(m_strPath);
    const auto time = fs::last_write_time(m_strPath);
    try {
      host::IndexWriter(m_strPath).Write(mode);
      JudgeWritten(before);
    } catch (const host::Error&) {
      ++figures->refused;
      const bool isSame = test::ReadFile(m_strPath) == bytes;
      if (!isSame || fs::last_write_time(m_strPath) != time) Find("refused, but changed");
    }
  }

 private:
  void JudgeWritten(const test::Contents& before) {
    const bool isSound = IsCalledSound(m_strPath);
    ++(isSound ? m_pFigures->sound : m_pFigures->noted);
    try {
      if (host::Image(m_strPath).IsWhole() != isSound) Find("verifying and opening disagree");
    } catch (const host::Error& error) {
      Find(error.what());
    }
    const test::Contents after = ContentsOf(m_strPath);
    if (isSound && after != m_Whole) Find("called sound, but is not what it was");
    for (const auto& [path, contents] : m_Whole) {
      const auto now = after.find(path);
      const auto then = before.find(path);
      const bool isThere = now != after.end() && now->second == contents;
      if (now != after.end() && !isThere && now->second != test::kUnread) {
        Find(path + " is read as something else");
      }
      if (!isThere && then != before.end() && then->second == contents) Find(path + " gets lost");
    }
  }

  void Find(const std::string& what) {
    ++m_pFigures->findings;
    std::printf("FINDING %s: %s\n", m_strPlace.c_str(), what.c_str());
  }

  std::string m_strPath;
  const test::Contents& m_Whole;
  std::string m_strPlace;
  Figures* m_pFigures = nullptr;
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
  builder.Finish();
  return image;
}

void Print(const char* mode, size_t count, const Figures& figures) {
  std::printf("%-8s %zu bits: %zu named before, %zu refused, %zu noted, %zu sound, %zu findings\n",
              mode, count, figures.named, figures.refused, figures.noted, figures.sound,
              figures.findings);
}

bool RunAll(size_t count) {
  const test::TempDir folder;
  Figures plain;
  Figures forced;
  for (const int level : {0, 5}) {
    const test::DamageSeed seed(Build(folder, level));
    Campaign campaign(folder / "damaged.cap", seed.Whole());
    std::mt19937 random(static_cast<uint32_t>(level));
    for (size_t i = 0; i < count / 2; ++i) {
      std::string bytes = seed.Bytes();
      const size_t at = random() % bytes.size();
      const unsigned bit = random() % 8;
      bytes[at] = static_cast<char>(bytes[at] ^ (1U << bit));
      const std::string place = "level " + std::to_string(level) + ", byte " + std::to_string(at) +
                                ", bit " + std::to_string(bit);
      campaign.Judge(bytes, place, DamagedSections::IndexWhatIsLeft, &plain);
      campaign.Judge(bytes, place, DamagedSections::NoteDamage, &forced);
    }
  }
  Print("plain", count, plain);
  Print("forced", count, forced);
  return plain.findings + forced.findings == 0;
}

}  // namespace
}  // namespace capsule::fuzz

int main(int argc, char** argv) {
  const size_t count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 2000;
  return capsule::fuzz::RunAll(count) ? 0 : 1;
}
