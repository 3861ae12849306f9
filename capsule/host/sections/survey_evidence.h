// What the sound records of a section tell about how its folders hang together, as a measure for
// guesses. Whatever an image is not regular in counts for nothing.
#pragma once

#include <cstdint>
#include <limits>
#include <unordered_map>
#include <vector>

#include "capsule/host/sections/survey.h"

namespace capsule::host {

class SurveyEvidence {
 public:
  static constexpr uint32_t kNone = std::numeric_limits<uint32_t>::max();
  static constexpr uint32_t kRoot = kNone - 1;

  // `items`: those of one section, lost ones included; they must outlive this.
  explicit SurveyEvidence(const std::vector<SurveyItem>& items);

  // All measures are natural logarithms of how much likelier something is than by chance. Items are
  // told by their number.

  // Measures that `after` comes next behind `before` in one folder.
  double Order(uint32_t before, uint32_t after) const;

  // Measures the same for two files by their kind of name: a folder often holds many of one kind.
  double Likeness(uint32_t before, uint32_t after) const;

  // That `folder`, an item or kRoot or one of which nothing is known, is what `child`, a folder,
  // lies in: the ".." of a folder repeats what the records of the one above say.
  double Times(uint32_t folder, uint32_t child) const;

  // That `lost` bytes hide the ends of `closed` folders and then the beginnings of `opened`.
  double Hidden(uint64_t lost, uint32_t closed, uint32_t opened) const;

  // Whether its name is whole enough to be measured.
  bool HasName(uint32_t item) const;

  // Whether the ".." of a folder is there.
  bool TellsFolder(uint32_t child) const { return m_above[child] != 0; }

 private:
  struct Share {
    double fits = 0;
    double all = 0;

    void Add(bool fit) {
      fits += fit ? 1 : 0;
      all += 1;
    }
    // Never certain, and one in two of nothing.
    double Value() const;
  };

  // 0 for a folder that is no item.
  uint64_t KeyOf(uint32_t folder) const {
    if (folder == kRoot) return m_rootKey;
    return folder < m_own.size() ? m_own[folder] : 0;
  }
  bool IsBehindLoss(uint32_t item) const;
  bool IsInOrder(uint32_t before, uint32_t after) const;
  void ReadKeys();
  void ReadKinds();
  struct Open;
  void Learn();
  void LearnFrom(uint32_t i, Open* at);

  const std::vector<SurveyItem>& m_items;
  std::vector<uint64_t> m_own;    // of a folder: what its records say of it, 0 if not known
  std::vector<uint64_t> m_above;  // and of the folder above
  std::vector<uint64_t> m_kinds;  // of the names of files
  std::unordered_map<uint64_t, uint32_t> m_kindCounts;
  uint32_t m_files = 0;
  uint64_t m_rootKey = 0;
  std::unordered_map<uint64_t, uint32_t> m_keys;  // how many folders have it
  uint32_t m_folders = 0;
  double m_foldersPerByte = 0;
  Share m_order;
  Share m_likeness;
  Share m_times;
};

}  // namespace capsule::host
