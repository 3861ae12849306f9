// Behind each loss there are several guesses of how many folders end and begin in it; each is
// measured by what follows, and the best of them are followed on, over the next losses as well.
//
// 1. Between two losses every guess opens and closes the same folders. What a stretch asks of the
//    folders that were open before it is summed up once (Stretch), so a guess costs no more than
//    the folders that the stretch closes and opens.
// 2. The work is bounded by a multiple of the items; beyond that nothing more is guessed.
#include "capsule/host/sections/survey_places.h"

#include <algorithm>
#include <limits>
#include <unordered_map>
#include <utility>

#include "capsule/host/sections/survey_evidence.h"
#include "capsule/host/sections/survey_repair.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

constexpr uint32_t kNone = SurveyEvidence::kNone;
constexpr uint32_t kRoot = SurveyEvidence::kRoot;
constexpr size_t kGuessesKept = 24;
constexpr uint64_t kMostClosed = 48;  // in one loss
constexpr uint64_t kMostOpened = 8;
constexpr uint64_t kFolderSize = uint64_t{3} * kDirRecordSize;  // with its "." and ".."
constexpr size_t kLeastWork = 1'000'000;
constexpr size_t kWorkPerItem = 256;
constexpr size_t kNodesPerItem = 32;
constexpr size_t kFirstLevels = 64;
constexpr double kDecided = 7;       // by how much a guess must be the likelier one
constexpr double kImpossible = -12;  // a folder ends that is not open, or another number at the end
constexpr double kUnlikely = -3;     // another number, where the last folder may be lost

// A folder that is open in a guess. Guesses share what they agree in.
struct Node {
  uint32_t above = kNone;
  uint32_t folder = kRoot;
  uint32_t last = kNone;  // what came last in it
  uint32_t lastFile = kNone;
  uint32_t depth = 0;
  uint64_t hash = 0;  // of the folders down to it
};

// One guess for one loss.
struct Decision {
  uint32_t before = kNone;
  uint32_t loss = 0;
  uint32_t closed = 0;
  uint32_t opened = 0;
};

struct Guess {
  double score = 0;
  uint32_t node = 0;
  uint32_t decision = kNone;
  int64_t lastFolder = 0;  // how deep the last folder is
};

// What follows a loss up to the next one.
struct Stretch {
  struct Opened {
    uint32_t folder = kNone;
    uint32_t last = kNone;  // of its items
    uint32_t lastFile = kNone;
  };
  struct Level : Opened {  // its folder: the first one in it that tells of the one above
    uint32_t first = kNone;
    uint32_t firstFile = kNone;
  };

  std::vector<Level> levels{1};  // of the folders that were open before, the innermost first
  std::vector<Opened> opened;    // and stay open
  bool endsSection = false;
  uint32_t zeroEntries = 0;  // at the end of the section
  bool hasFolder = false;
  int64_t lastFolder = 0;  // how deep the last folder is, from the innermost open before
};

class Placement {
 public:
  Placement(std::vector<SurveyItem> items, const SurveyVisitor& visitor)
      : m_items(std::move(items)),
        m_visitor(visitor),
        m_evidence(m_items),
        m_work(kLeastWork + kWorkPerItem * m_items.size()) {}

  std::vector<SurveyItem> Run() {
    m_nodes.push_back({});
    m_guesses.push_back({});
    size_t at = 0;
    while (at < m_items.size() && (m_items[at].item.kind == Kind::Section || IsZeroEntry(at)) &&
           m_items[at].lost == 0) {
      ++at;  // zero entries in front close levels of the section before
    }
    while (at < m_items.size()) {
      const size_t begin = at;
      while (at < m_items.size() && m_items[at].lost == 0) ++at;
      // What hides the loss belongs to the stretch before it.
      if (at < m_items.size()) ++at;
      Follow(Read(begin, at));
      // A writer that closes too many levels does so elsewhere as well.
      if (m_margins.empty() && m_guesses[0].score <= kImpossible) m_mayCloseMore = true;
      if (at < m_items.size()) Branch(static_cast<uint32_t>(at - 1));
    }
    return Build();
  }

 private:
  Stretch Read(size_t begin, size_t end) const {
    Stretch stretch;
    size_t stop = end;
    const bool isLast = end == m_items.size() && end > begin && !m_items.back().isGap;
    if (isLast && m_items.back().item.kind == Kind::Trailer) {
      for (--stop; stop > begin && IsZeroEntry(stop - 1); --stop) ++stretch.zeroEntries;
      stretch.endsSection = true;
    }
    for (size_t i = begin; i < stop; ++i) Add(static_cast<uint32_t>(i), &stretch);
    return stretch;
  }

  bool IsZeroEntry(size_t i) const {
    return !m_items[i].isGap && m_items[i].item.kind == Kind::ZeroEntry;
  }

  void Add(uint32_t i, Stretch* stretch) const {
    if (m_items[i].isGap) return;
    const Kind kind = m_items[i].item.kind;
    if (kind == Kind::ZeroEntry) {
      if (stretch->opened.empty()) {
        stretch->levels.emplace_back();
      } else {
        stretch->opened.pop_back();
      }
    }
    if (kind != Kind::Directory && kind != Kind::File) return;
    const bool isOpened = !stretch->opened.empty();
    if (!isOpened) AddFirst(i, &stretch->levels.back());
    Stretch::Opened& in = isOpened ? stretch->opened.back() : stretch->levels.back();
    if (m_evidence.HasName(i)) in.last = i;
    if (m_evidence.HasName(i) && kind == Kind::File) in.lastFile = i;
    if (kind != Kind::Directory) return;
    stretch->opened.push_back({i});
    stretch->hasFolder = true;
    stretch->lastFolder = static_cast<int64_t>(stretch->opened.size()) -
                          static_cast<int64_t>(stretch->levels.size() - 1);
  }

  void AddFirst(uint32_t i, Stretch::Level* level) const {
    const bool isFile = m_items[i].item.kind == Kind::File;
    const bool isNamed = m_evidence.HasName(i);
    if (isNamed && level->first == kNone) level->first = i;
    if (isNamed && isFile && level->firstFile == kNone) level->firstFile = i;
    if (!isFile && level->folder == kNone && m_evidence.TellsFolder(i)) level->folder = i;
  }

  // Many guesses are made of each loss, and few are followed for long.
  void Follow(const Stretch& stretch) {
    for (Guess& guess : m_guesses) {
      const Node& node = m_nodes[guess.node];
      if (stretch.hasFolder) guess.lastFolder = node.depth + stretch.lastFolder;
      guess.score += JudgeEnd(stretch, guess);
    }
    const size_t first = std::min(stretch.levels.size(), kFirstLevels);
    for (const auto& [from, to] : {std::pair(size_t{0}, first), {first, stretch.levels.size()}}) {
      for (Guess& guess : m_guesses) JudgeLevels(stretch, from, to, &guess);
      Prune();
    }
    DropUnused();
    for (Guess& guess : m_guesses) Open(stretch, &guess);
  }

  void JudgeLevels(const Stretch& stretch, size_t from, size_t to, Guess* guess) {
    for (size_t i = from; i < to; ++i) {
      if (i > 0) Leave(guess);
      guess->score += Judge(m_nodes[guess->node], stretch.levels[i]);
    }
    Spend(to - from);
  }

  void Open(const Stretch& stretch, Guess* guess) {
    if (stretch.levels.back().last != kNone) {
      Node changed = m_nodes[guess->node];
      const Stretch::Level& level = stretch.levels.back();
      changed.last = level.last;
      if (level.lastFile != kNone) changed.lastFile = level.lastFile;
      guess->node = AddNode(changed);
    }
    for (const Stretch::Opened& opened : stretch.opened) {
      Enter(opened.folder, guess);
      m_nodes[guess->node].last = opened.last;
      m_nodes[guess->node].lastFile = opened.lastFile;
    }
  }

  double Judge(const Node& node, const Stretch::Level& level) const {
    double score = m_evidence.Order(node.last, level.first) +
                   m_evidence.Likeness(node.lastFile, level.firstFile);
    if (level.folder != kNone) score += m_evidence.Times(node.folder, level.folder);
    return score;
  }

  // Writers close one level more than the last folder is deep, in the last section. That folder may
  // be lost.
  static double JudgeEnd(const Stretch& stretch, const Guess& guess) {
    if (!stretch.endsSection || stretch.zeroEntries == 0 || guess.lastFolder == 0) return 0;
    if (guess.lastFolder + 1 == int64_t{stretch.zeroEntries}) return 0;
    return stretch.hasFolder ? kImpossible : kUnlikely;
  }

  void Leave(Guess* guess) {
    if (m_nodes[guess->node].above == kNone) {
      if (!m_mayCloseMore) guess->score += kImpossible;
    } else {
      guess->node = m_nodes[guess->node].above;
    }
  }

  void Enter(uint32_t folder, Guess* guess) {
    const Node& above = m_nodes[guess->node];
    const uint64_t hash = (above.hash ^ folder) * 0x9E3779B97F4A7C15 + (above.hash >> 29);
    guess->node = AddNode({guess->node, folder, kNone, kNone, above.depth + 1, hash});
    Spend(1);
  }

  uint32_t AddNode(const Node& node) {
    m_nodes.push_back(node);
    if (m_nodes.size() > kLeastWork + kNodesPerItem * m_items.size()) m_work = 0;
    return static_cast<uint32_t>(m_nodes.size() - 1);
  }

  void Spend(size_t work) { m_work -= std::min(m_work, work); }

  // Guesses how many folders a loss opened, behind those that it closed.
  void BranchOpened(uint64_t lost, Decision decision, Guess opening, std::vector<Guess>* guesses) {
    const uint64_t mostOpened = std::min(lost / kFolderSize, kMostOpened);
    for (;; ++decision.opened) {
      Guess& guess = guesses->emplace_back(opening);
      guess.score += m_evidence.Hidden(lost, decision.closed, decision.opened);
      guess.decision = static_cast<uint32_t>(m_decisions.size());
      m_decisions.push_back(decision);
      if (decision.opened == mostOpened || m_work == 0) return;
      Enter(MadeUp(decision.loss, decision.opened), &opening);
      opening.lastFolder = m_nodes[opening.node].depth;
    }
  }

  // Guesses what item `loss` hides.
  void Branch(uint32_t loss) {
    const uint64_t lost = m_items[loss].lost;
    const uint64_t mostClosed = std::min(lost / kDirRecordSize, kMostClosed);
    std::vector<Guess> guesses;
    m_nodesBefore = m_nodes.size();
    m_decisionsBefore = m_decisions.size();
    m_margins.emplace_back(loss, std::numeric_limits<double>::max());
    const auto number = static_cast<uint32_t>(m_margins.size() - 1);
    if (m_work == 0) m_margins.back().second = 0;
    for (const Guess& from : m_guesses) {
      Guess closing = from;
      for (uint32_t closed = 0;; ++closed) {
        BranchOpened(lost, {from.decision, number, closed}, closing, &guesses);
        if (closed == mostClosed || m_work == 0) break;
        if (m_nodes[closing.node].above == kNone) break;
        closing.node = m_nodes[closing.node].above;
      }
    }
    m_guesses = std::move(guesses);
  }

  // Stands for a folder that is no item.
  uint32_t MadeUp(uint32_t loss, uint32_t opened) const {
    return kNone - 2 - (loss * static_cast<uint32_t>(kMostOpened) + opened);
  }

  // Keeps the best, one for each row of open folders.
  void Prune() {
    std::sort(m_guesses.begin(), m_guesses.end(),
              [](const Guess& a, const Guess& b) { return a.score > b.score; });
    std::unordered_map<uint64_t, size_t> kept;
    std::vector<Guess> best;
    for (const Guess& guess : m_guesses) {
      const auto [known, isNew] = kept.try_emplace(m_nodes[guess.node].hash, best.size());
      if (isNew && best.size() < (m_work > 0 ? kGuessesKept : 1)) {
        best.push_back(guess);
      } else {
        const bool hasTwin = known->second < best.size();
        Compare(best[hasTwin ? known->second : 0], guess);
      }
    }
    m_guesses = std::move(best);
  }

  // Forgets what the last loss brought, but for what the guesses that are kept need of it.
  void DropUnused() {
    const std::vector<Node> nodes(m_nodes.begin() + Signed(m_nodesBefore), m_nodes.end());
    const std::vector<Decision> decisions(m_decisions.begin() + Signed(m_decisionsBefore),
                                          m_decisions.end());
    m_nodes.resize(m_nodesBefore);
    m_decisions.resize(m_decisionsBefore);
    std::unordered_map<uint32_t, uint32_t> moved;
    const auto isNew = [&](uint32_t node) { return node != kNone && node >= m_nodesBefore; };
    for (Guess& guess : m_guesses) {
      std::vector<uint32_t> row;  // from the innermost folder
      for (uint32_t at = guess.node; isNew(at) && !moved.contains(at);
           at = nodes[at - m_nodesBefore].above) {
        row.push_back(at);
      }
      for (auto at = row.rbegin(); at != row.rend(); ++at) {
        Node node = nodes[*at - m_nodesBefore];
        if (isNew(node.above)) node.above = moved[node.above];
        moved[*at] = AddNode(node);
      }
      if (isNew(guess.node)) guess.node = moved[guess.node];
      if (guess.decision == kNone || guess.decision < m_decisionsBefore) continue;
      m_decisions.push_back(decisions[guess.decision - m_decisionsBefore]);
      guess.decision = static_cast<uint32_t>(m_decisions.size() - 1);
    }
  }

  static std::ptrdiff_t Signed(size_t count) { return static_cast<std::ptrdiff_t>(count); }

  // Notes by how much the better of two is so, where they differ.
  void Compare(const Guess& better, const Guess& worse) {
    const double margin = better.score - worse.score;
    if (margin >= kDecided) return;
    uint32_t a = better.decision;
    uint32_t b = worse.decision;
    while (a != b && a != kNone && b != kNone && m_work > 0) {
      const Decision& one = m_decisions[a];
      const Decision& other = m_decisions[b];
      if (one.closed != other.closed || one.opened != other.opened) {
        double& known = m_margins[one.loss].second;
        known = std::min(known, margin);
      }
      a = one.before;
      b = other.before;
      Spend(1);
    }
  }

  std::vector<SurveyItem> Build() {
    for (size_t i = 1; i < m_guesses.size(); ++i) Compare(m_guesses[0], m_guesses[i]);
    std::vector<const Decision*> decisions(m_margins.size());
    for (uint32_t at = m_guesses[0].decision; at != kNone; at = m_decisions[at].before) {
      decisions[m_decisions[at].loss] = &m_decisions[at];
    }
    std::vector<SurveyItem> placed;
    placed.reserve(m_items.size());
    size_t loss = 0;
    for (uint32_t i = 0; i < m_items.size(); ++i) {
      placed.push_back(std::move(m_items[i]));
      if (loss == m_margins.size() || m_margins[loss].first != i) continue;
      const SectionItem hiding = placed.back().item;
      AddHidden(hiding, *decisions[loss], &placed);
      if (m_work == 0 || m_margins[loss].second < kDecided) {
        m_visitor.onDamage(hiding.offset, "what follows may belong to another folder");
      }
      ++loss;
    }
    return placed;
  }

  void AddHidden(const SectionItem& hiding, const Decision& decision,
                 std::vector<SurveyItem>* placed) {
    if (decision.closed > 0) {
      m_visitor.onDamage(hiding.offset,
                         "the ends of " + std::to_string(decision.closed) + " folders are lost");
    }
    for (uint32_t n = 0; n < decision.closed; ++n) {
      SurveyItem closing;
      closing.item.kind = Kind::ZeroEntry;
      closing.item.offset = hiding.offset + hiding.length;
      placed->push_back(std::move(closing));
    }
    for (uint32_t n = 0; n < decision.opened; ++n) {
      const uint64_t at = hiding.offset + hiding.length - decision.opened + n;
      placed->push_back(LostFolder(at));
      m_visitor.onDamage(at, "the records of a folder are lost");
    }
  }

  std::vector<SurveyItem> m_items;
  const SurveyVisitor& m_visitor;
  SurveyEvidence m_evidence;
  size_t m_work;
  size_t m_nodesBefore = 1;  // the loss that was met last
  size_t m_decisionsBefore = 0;
  bool m_mayCloseMore = false;
  std::vector<Node> m_nodes;
  std::vector<Decision> m_decisions;
  std::vector<Guess> m_guesses;
  std::vector<std::pair<uint32_t, double>>
      m_margins;  // by loss: its item, how surely it is decided
};

}  // namespace

std::vector<SurveyItem> PlaceBehindLosses(std::vector<SurveyItem> items,
                                          const SurveyVisitor& visitor) {
  const bool isWhole = std::all_of(items.begin(), items.end(),
                                   [](const SurveyItem& item) { return item.lost == 0; });
  if (isWhole) return items;
  for (size_t i = 1; i < items.size(); ++i) {
    if (items[i].isGap) items[i].lost += std::exchange(items[i - 1].lost, 0);
  }
  return Placement(std::move(items), visitor).Run();
}

}  // namespace capsule::host
