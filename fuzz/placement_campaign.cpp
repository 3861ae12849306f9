// Overwrites parts of images without an index and judges where the files come out.
//
//   placement_campaign [--seeds N] [--first N] [--scale N] [--most PERCENT] [--keep FOLDER]
//
// Two trees of 2,200 files in nested folders, in one of which all times are equal, become images
// whose index is taken away. For each seed 15 stretches of 64 KiB are overwritten. A file is in a
// wrong place when the folders above it are not those that it was packed in; a lost folder may go
// by another name, but by one only. It is so without a word when no problem at the damage says that
// what follows may belong to another folder. `--scale 16` makes files and stretches a sixteenth as
// long. Fails when more files than `--most` percent (1) are in a wrong place on average over both
// trees, or one is without a word. `--keep` puts the damaged images of such there, and the whole
// ones.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "capsule/host/image.h"
#include "capsule/host/image_builder.h"
#include "tests/support/damage_seed.h"
#include "tests/support/entries.h"
#include "tests/support/temp_dir.h"

namespace capsule::fuzz {
namespace {

constexpr size_t kFiles = 2200;
constexpr size_t kFolders = 220;
constexpr size_t kPlaces = 15;
constexpr size_t kPlaceSize = size_t{64} << 10;
constexpr size_t kMeanFile = size_t{60} << 10;

struct Options {
  uint32_t seeds = 200;
  uint32_t first = 1;
  size_t scale = 1;
  double most = 1;
  std::string keep;
};

// A source tree: names of several habits, folders up to six levels deep.
class Tree {
 public:
  Tree(uint32_t seed, bool equalTimes, size_t scale) : m_random(seed) {
    std::vector<std::filesystem::path> folders{m_folder.Path()};
    std::vector<size_t> depths{0};
    std::vector<uint_fast32_t> habits{0};
    while (folders.size() <= kFolders) {
      const size_t parent = m_random() % 4 == 0 ? 0 : m_random() % folders.size();
      if (depths[parent] == 6) continue;
      const auto path = folders[parent] / FolderName();
      if (!std::filesystem::create_directory(path)) continue;
      folders.push_back(path);
      depths.push_back(depths[parent] + 1);
      habits.push_back(m_random());
    }
    std::string noise;
    while (noise.size() < 4 * kMeanFile) {
      const bool isText = noise.size() / 300 % 2 == 0;
      noise += static_cast<char>(isText ? 'a' + m_random() % 4 : m_random() % 256);
    }
    std::vector<std::filesystem::path> all = folders;
    for (size_t i = 0; i < kFiles;) {
      const size_t folder = m_random() % folders.size();
      const auto path = folders[folder] / FileName(habits[folder]);
      if (std::filesystem::exists(path)) continue;
      const size_t size = m_random() % 20 == 0 ? 0 : m_random() % (2 * kMeanFile / scale);
      test::WriteFile(path.string(), std::string_view(noise).substr(m_random() % kMeanFile, size));
      all.push_back(path);
      ++i;
    }
    for (const auto& path : all) {
      const int64_t at = equalTimes
                             ? 1'000'000'000
                             : 1'000'000'000 + static_cast<int64_t>(m_random() % 400'000'000);
      const timespec times[] = {{at, 0}, {at, 0}};
      ::utimensat(AT_FDCWD, path.c_str(), times, 0);
    }
  }

  const std::filesystem::path& Path() const { return m_folder.Path(); }

 private:
  std::string Word() {
    static const std::array<const char*, 16> kWords = {
        "annual",  "backup",  "cables",  "drafts",  "engine", "family", "garden", "holiday",
        "invoice", "journal", "kitchen", "letters", "music",  "notes",  "photos", "zebra"};
    return kWords[m_random() % kWords.size()];
  }
  std::string Number(size_t most, size_t width) {
    std::string digits = std::to_string(m_random() % most);
    return std::string(width - std::min(width, digits.size()), '0') + digits;
  }
  std::string FolderName() {
    switch (m_random() % 3) {
      case 0:
        return Word();
      case 1:
        return "Folder " + Number(40, 2);
      default:
        return std::to_string(1990 + m_random() % 30);
    }
  }
  std::string FileName(uint_fast32_t habit) {
    switch (habit % 4) {
      case 0:
        return Word() + "-" + Word() + ".txt";
      case 1:
        return "IMG_" + Number(10000, 4) + ".DAT";
      case 2:
        return Word() + Number(1000, 3) + ".doc";
      default:
        return "20" + Number(30, 2) + "-" + Number(12, 2) + "-" + Number(30, 2) + " report.txt";
    }
  }

  test::TempDir m_folder;
  std::mt19937 m_random;
};

// What came out of one damaged image.
struct Outcome {
  size_t lost = 0;
  size_t wrong = 0;
  size_t silent = 0;  // of the wrong ones
  size_t told = 0;    // places of which it is said that what follows may belong elsewhere
};

struct Range {
  uint64_t from, to;
};

// Compares salvaged trees with the whole one.
class Judge {
 public:
  explicit Judge(const test::DamageSeed& seed) {
    std::vector<uint64_t> open{0};
    for (const host::SectionItem& item : seed.Items()) {
      using Kind = host::SectionItem::Kind;
      if (item.kind == Kind::ZeroEntry && open.size() > 1) open.pop_back();
      if (item.kind != Kind::Directory && item.kind != Kind::File) continue;
      m_items[item.offset] = {open.back(), item.offset + item.length, item.kind == Kind::File};
      if (item.kind == Kind::Directory) open.push_back(item.offset);
    }
  }

  Outcome Compare(const host::Image& image, const std::vector<Range>& damage) const {
    Outcome outcome;
    Places places;
    std::map<uint64_t, bool> files;  // by place: whether it is in the right one
    test::ForEachEntry(image, [&](const host::Entry& entry) {
      const auto known = m_items.find(entry.Offset());
      if (entry.IsRoot() || known == m_items.end() || !known->second.isFile) return;
      if (!entry.IsDirectory()) files[entry.Offset()] = IsRight(entry, &places);
    });
    std::vector<uint64_t> told;
    for (const host::ImageProblem& problem : image.Problems()) {
      if (problem.reason.find("may belong to another folder") == std::string::npos) continue;
      told.push_back(std::stoull(problem.path.substr(problem.path.find("0x")), nullptr, 16));
    }
    std::sort(told.begin(), told.end());
    outcome.told = told.size();
    bool isCovered = false;
    bool wasWrong = false;
    uint64_t before = 0;  // the last file that came out
    for (const auto& [offset, item] : m_items) {
      if (!item.isFile) continue;
      const auto file = files.find(offset);
      if (file == files.end()) {
        ++outcome.lost;
        continue;
      }
      const bool isWrong = !file->second;
      // A wrong place comes from the damage in front of the first of a run of files.
      const auto hit = std::find_if(damage.begin(), damage.end(), [&](const Range& range) {
        return range.to > before && range.from < offset;
      });
      if (isWrong && !wasWrong && hit != damage.end()) {
        const auto at = std::lower_bound(told.begin(), told.end(), before);
        isCovered = at != told.end() && *at <= offset;
      }
      wasWrong = isWrong;
      before = offset;
      if (!isWrong) continue;
      ++outcome.wrong;
      if (!isCovered) ++outcome.silent;
    }
    return outcome;
  }

 private:
  struct Item {
    uint64_t folder;  // the place of its records; 0 for the root
    uint64_t end;
    bool isFile;
  };
  // The folder that each one of the salvaged tree stands for, and the other way round.
  struct Places {
    std::map<uint64_t, uint64_t> standsFor;
    std::map<uint64_t, uint64_t> standIn;
  };

  // Whether the folders above are those of `offset` in the whole image.
  bool IsRightBelow(const host::Entry& folder, uint64_t wanted, Places* places) const {
    host::Entry at = folder;
    while (!at.IsRoot()) {
      if (wanted == 0) return false;
      const auto known = m_items.find(at.Offset());
      const bool isOwn = known != m_items.end() && !at.Name().starts_with("damaged-");
      if (isOwn && at.Offset() != wanted) return false;
      if (!isOwn) {
        const auto [stands, isNew] = places->standsFor.try_emplace(at.Offset(), wanted);
        if (stands->second != wanted) return false;
        if (places->standIn.try_emplace(wanted, at.Offset()).first->second != at.Offset()) {
          return false;
        }
      }
      wanted = m_items.at(wanted).folder;
      at = at.Parent();
    }
    return wanted == 0;
  }

  bool IsRight(const host::Entry& entry, Places* places) const {
    return IsRightBelow(entry.Parent(), m_items.at(entry.Offset()).folder, places);
  }

  std::map<uint64_t, Item> m_items;  // by place
};

class Campaign {
 public:
  explicit Campaign(const Options& options) : m_options(options) {}

  void Run(const char* name, const Tree& tree, int level) {
    const std::string path = m_folder / "x.cap";
    host::BuildOptions build;
    build.level = level;
    host::ImageBuilder builder(path, build);
    builder.AddDirectory(tree.Path());
    static_cast<void>(builder.Finish());
    const test::DamageSeed seed(path);
    const Judge judge(seed);
    if (!m_options.keep.empty()) {
      test::WriteFile(m_options.keep + "/" + name + "-whole.cap", seed.Bytes());
    }
    Outcome sum;
    size_t worst = 0;
    for (uint32_t i = 0; i < m_options.seeds; ++i) {
      const uint32_t number = m_options.first + i;
      std::vector<Range> damage;
      test::WriteFile(path, Damage(seed, number, &damage));
      const host::Image image(path, host::Opening::Salvage);
      const Outcome one = judge.Compare(image, damage);
      if (one.wrong > 0) {
        std::printf("%s, seed %u: %zu in a wrong place, %zu without a word, %zu places told\n",
                    name, number, one.wrong, one.silent, one.told);
      }
      if (one.wrong > 0 && !m_options.keep.empty()) {
        std::filesystem::copy_file(path,
                                   std::filesystem::path(m_options.keep) /
                                       (std::string(name) + std::to_string(number) + ".cap"),
                                   std::filesystem::copy_options::overwrite_existing);
      }
      sum.lost += one.lost;
      sum.wrong += one.wrong;
      sum.silent += one.silent;
      sum.told += one.told;
      worst = std::max(worst, one.wrong);
    }
    const double runs = std::max<uint32_t>(1, m_options.seeds);
    const double percent = 100.0 * static_cast<double>(sum.wrong) / runs / kFiles;
    std::printf(
        "%-12s %u runs over %zu bytes: %.1f files lost, %.2f in a wrong place (%.3f %%, at most "
        "%zu), %zu without a word, %.1f of %zu places told\n",
        name, m_options.seeds, seed.Bytes().size(), static_cast<double>(sum.lost) / runs,
        static_cast<double>(sum.wrong) / runs, percent, worst, sum.silent,
        static_cast<double>(sum.told) / runs, kPlaces);
    std::fflush(stdout);
    m_percents.push_back(percent);
    m_silent += sum.silent;
  }

  bool IsGood() const {
    const double sum = std::accumulate(m_percents.begin(), m_percents.end(), 0.0);
    return sum <= m_options.most * static_cast<double>(m_percents.size()) && m_silent == 0;
  }

 private:
  std::string Damage(const test::DamageSeed& seed, uint32_t number,
                     std::vector<Range>* damage) const {
    constexpr size_t kHeaders = kHeaderSize + kPartitionHeaderSize;
    std::mt19937 random(number);
    std::string bytes = seed.Bytes();
    const size_t size = kPlaceSize / m_options.scale;
    for (size_t i = 0; i < kPlaces; ++i) {
      const size_t at = kHeaders + random() % (seed.IndexOffset() - kHeaders - size);
      for (size_t n = 0; n < size; ++n) bytes[at + n] = static_cast<char>(random());
      damage->push_back({at, at + size});
    }
    bytes.replace(kIndexOffsetOffset, 4, 4, '\0');
    return bytes;
  }

  Options m_options;
  test::TempDir m_folder;
  std::vector<double> m_percents;  // by tree
  size_t m_silent = 0;
};

int Main(int argc, char** argv) {
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    const char* value = argv[i + 1];
    if (option == "--seeds") options.seeds = static_cast<uint32_t>(std::atoi(value));
    if (option == "--first") options.first = static_cast<uint32_t>(std::atoi(value));
    if (option == "--scale")
      options.scale = std::max<size_t>(1, static_cast<size_t>(std::atoi(value)));
    if (option == "--most") options.most = std::atof(value);
    if (option == "--keep") options.keep = value;
  }
  Campaign campaign(options);
  campaign.Run("times", Tree(1, false, options.scale), 1);
  campaign.Run("equal-times", Tree(2, true, options.scale), 0);
  return campaign.IsGood() ? 0 : 1;
}

}  // namespace
}  // namespace capsule::fuzz

int main(int argc, char** argv) { return capsule::fuzz::Main(argc, argv); }
