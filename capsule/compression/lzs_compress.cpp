// LzsCompress: the resumable shell around the search and the inner loop.
//
// Output. Codes are gathered into 32-bit words, and only full words go out, except at the end of a
// unit. The output is a sequence of pieces: an odd literal, a pair of literals, the header of a
// match, one group of its length, the end marker, the padded last bytes. Between pieces fewer than
// 32 bits are held (1), so a piece fills one word at most (2).
//
// Pause. A word that the destination has no room for is owed: as many of its bytes as fit go out,
// the others are kept, and the call returns with the piece written as far as it is concerned; the
// phase says what comes next (3). So a pause changes no bit.
//
// Where the bytes are. Tokens always cover source bytes of this call: `next` of them have tokens,
// and of those the last `literals` + `matchRest` are not yet in any written piece (4). The buffer
// holds the history at the start of the call and, behind it, a copy of the first source bytes; it
// is brought up to date when the source is used up.
//
// Indexes. The area has the one that the units of a history share. With bodies indexed, a high
// effort and enough source and room, a second one is built from it behind the first bytes of a
// call, kept up to date by the inner loop, and forgotten as soon as anything is searched without
// it. To know what is to be entered in it, the chain says which positions in reach were not
// entered, for as long as bodies are indexed (5).
//
//   Fresh ---call---> Waiting (source used up, unit open or kept)   Run
//     ^                  |
//     |                  +---call, destination full---> Paused      Pause
//     +---unit complete without LzsKeepHistory, or closed           Complete, Close
#include <algorithm>
#include <cstring>

#include "capsule/compression/compress_fast.h"
#include "capsule/compression/lzs.h"

namespace capsule {
namespace lzs {
namespace {

constexpr uint16_t kAllFlags =
    LzsEndOfInput | LzsCloseOnFullOutput | LzsKeepHistory | LzsIndexMatchEnds | LzsIndexMatchBodies;
constexpr uint32_t kMinDestination = 16;
constexpr uint32_t kClosingReserve = 12;
constexpr uint32_t kWordSize = 4;
constexpr unsigned kWordBits = 32;
// What closing takes at most: the owed word, the bits of the piece that did not fit it, a last
// group and the end marker.
constexpr unsigned kMaxPieceBits = 2 * kLiteralBits;
constexpr uint32_t kClosingNeed =
    kWordSize + (kMaxPieceBits - 1 + kGroupBits + kEndMarkerBits + 7) / 8;
static_assert(kMaxPieceBits >= kMaxHeaderBits && kClosingNeed <= kClosingReserve);

// Positions are moved down before they pass the first; the second is how many bytes are searched
// in between.
constexpr uint32_t kPositionCeiling = uint32_t{1} << 31;
constexpr uint32_t kSearchSlice = uint32_t{1} << 30;

// From which effort, and how much source and room, the second index is worth being built.
constexpr uint32_t kTripleEffort = 16;
constexpr uint32_t kTripleSource = 1024;
constexpr uint32_t kBeforeTriples = 16;  // source bytes searched without it

class CompressCall {
 public:
  CompressCall(CompressionArea& area, uint16_t flags, uint32_t effort)
      : m_area(area), m_flags(flags), m_effort(effort) {
    std::memcpy(&m_state, area.state, sizeof m_state);
  }

  bool IsRefused(uint32_t destinationCount) const;
  uint16_t Run(const unsigned char** source, unsigned char** destination, uint32_t* sourceCount,
               uint32_t* destinationCount);

 private:
  void Begin();
  uint16_t WriteUnit();
  void ChooseNext();
  SearchWindow Window() const;
  uint32_t SearchEnd(const SearchWindow& window) const;
  void Rebase();
  bool SearchFast();
  bool ChooseIndex(const SearchWindow& window);
  void SearchRun();
  uint32_t EnterFound(const SearchWindow& window, Match match);
  bool WriteLiterals();
  bool WriteHeader();
  bool WriteGroups();
  bool WriteEndMarker();
  bool WritePadding();
  bool Put(uint32_t value, unsigned width);
  bool DeliverOwed();
  uint16_t Stop();
  uint16_t Close();
  uint16_t Complete();
  void KeepInput();
  void StartFresh();
  void MakeRoomForInput();

  bool MayChooseTriples() const { return Has(LzsIndexMatchBodies) && m_effort >= kTripleEffort; }
  bool Has(uint16_t flag) const { return (m_flags & flag) != 0; }
  uint32_t Room() const { return static_cast<uint32_t>(m_outEnd - m_out); }
  // Whether the unit is closed, and not paused, when the destination fills. In new room for an open
  // unit that is too small for closing it pauses all the same.
  bool IsClosing() const {
    return Has(LzsCloseOnFullOutput) && m_state.phase < WritePhase::Padding &&
           Room() >= kClosingNeed;
  }
  // Words of tokens stay out of what closing may need.
  uint32_t WordRoom() const {
    const uint32_t reserve = IsClosing() ? kClosingReserve : 0;
    return Room() > reserve ? Room() - reserve : 0;
  }

  CompressionArea& m_area;
  CompressionState m_state;
  uint16_t m_flags;
  uint32_t m_effort;
  const unsigned char* m_source = nullptr;
  uint32_t m_sourceCount = 0;
  uint32_t m_consumed = 0;  // of the source, when the side is finished
  unsigned char* m_out = nullptr;
  unsigned char* m_outEnd = nullptr;
  bool m_hasTriples = false;  // the second index stands at the cursor
  TripleIndex m_triples;
};

bool CompressCall::IsRefused(uint32_t destinationCount) const {
  const auto changed = static_cast<uint16_t>(m_flags ^ m_state.flags);
  switch (m_state.saved) {
    case SavedSide::Source:
      if ((changed & LzsEndOfInput) != 0) return true;
      break;
    case SavedSide::Destination:
      return (changed & LzsCloseOnFullOutput) != 0;
    case SavedSide::None:
      break;
  }
  if (destinationCount >= kMinDestination) return false;
  return m_state.unit == UnitState::Fresh ||
         (m_state.unit == UnitState::Paused && (m_state.flags & LzsEndOfInput) != 0);
}

uint16_t CompressCall::Run(const unsigned char** source, unsigned char** destination,
                           uint32_t* sourceCount, uint32_t* destinationCount) {
  const bool isSourceSaved = m_state.saved == SavedSide::Source;
  const bool isDestinationSaved = m_state.saved == SavedSide::Destination;
  m_source = isSourceSaved ? m_state.savedSource : *source;
  m_sourceCount = isSourceSaved ? m_state.savedSourceCount : *sourceCount;
  m_out = isDestinationSaved ? m_state.savedDestination : *destination;
  m_outEnd = m_out + (isDestinationSaved ? m_state.savedDestinationCount : *destinationCount);

  Begin();
  const uint16_t result = WriteUnit();

  m_state.saved = SavedSide::None;
  m_state.flags = m_flags;
  if ((result & (LzsInputUsedUp | LzsUnitComplete)) != 0) {
    *source = m_source + m_consumed;
    *sourceCount = m_sourceCount - m_consumed;
  } else {
    m_state.saved = SavedSide::Source;
    m_state.savedSource = m_source;
    m_state.savedSourceCount = m_sourceCount;
  }
  if ((result & (LzsOutputFull | LzsUnitComplete)) != 0) {
    *destination = m_out;
    *destinationCount = Room();
  } else {
    m_state.saved = SavedSide::Destination;
    m_state.savedDestination = m_out;
    m_state.savedDestinationCount = Room();
  }
  std::memcpy(m_area.state, &m_state, sizeof m_state);
  return result;
}

// Positions of a fresh start are so far behind all earlier ones that none of those is in reach.
void CompressCall::Begin() {
  if (m_state.unit == UnitState::Fresh) {
    m_state.position += kChainSize;
    m_state.isMarked = true;
    if (!m_state.tablesAreClear || m_state.position >= kPositionCeiling) {
      std::memset(m_area.heads, 0, sizeof m_area.heads);
      m_state.position = kChainSize;
      m_state.tablesAreClear = true;
    }
  }
  if (m_state.unit != UnitState::Paused) {
    m_state.next = 0;
    MakeRoomForInput();
  }
}

// Puts the first source bytes behind the history, where there is one.
void CompressCall::MakeRoomForInput() {
  if (m_state.historyCount == 0) return;
  const uint32_t wanted = std::min(m_sourceCount, kInputBufferSize - kMaxOffset);
  if (m_state.historyCount + wanted > kInputBufferSize) {
    std::memmove(m_area.buffer, m_area.buffer + m_state.historyCount - kMaxOffset, kMaxOffset);
    m_state.historyCount = kMaxOffset;
  }
  const uint32_t fits = std::min(m_sourceCount, kInputBufferSize - m_state.historyCount);
  if (fits != 0) std::memcpy(m_area.buffer + m_state.historyCount, m_source, fits);
}

uint16_t CompressCall::WriteUnit() {
  if (m_state.owedCount != 0 && !DeliverOwed()) return Stop();
  for (;;) {
    bool fits = true;
    switch (m_state.phase) {
      case WritePhase::Search:
        if (m_state.next < m_sourceCount) {
          ChooseNext();
          break;
        }
        if (!Has(LzsEndOfInput)) return Complete();
        fits = WriteEndMarker();
        break;
      case WritePhase::Literals:
        fits = WriteLiterals();
        break;
      case WritePhase::Header:
        fits = WriteHeader();
        break;
      case WritePhase::Groups:
        fits = WriteGroups();
        break;
      case WritePhase::Padding:
        fits = WritePadding();
        break;
      case WritePhase::Finished:
        return Complete();
    }
    if (!fits) return Stop();
  }
}

// Either writes tokens by the inner loop, or chooses a run and a match and leaves them pending.
void CompressCall::ChooseNext() {
  if (m_state.position >= kPositionCeiling) Rebase();
  if (!SearchFast()) SearchRun();
}

void CompressCall::Rebase() {
  m_state.position = RebasePositions(m_area, m_state.position);
  m_hasTriples = false;
}

SearchWindow CompressCall::Window() const {
  const uint32_t history = m_state.historyCount;
  if (history == 0 || m_state.next >= kMaxOffset)
    return {m_source, m_source, m_sourceCount, m_sourceCount};
  return {m_source, m_area.buffer + history, std::min(m_sourceCount, kInputBufferSize - history),
          m_sourceCount};
}

// Where the search ends, or goes on in another window.
uint32_t CompressCall::SearchEnd(const SearchWindow& window) const {
  if (window.copied < window.size) return kMaxOffset;
  const uint32_t end = m_sourceCount > kSearchTail ? m_sourceCount - kSearchTail : 0;
  return m_state.next < end ? m_state.next + std::min(kSearchSlice, end - m_state.next) : end;
}

// Whether the search goes by the second index, which then is up to date. The first bytes of a
// source are searched without it, since their match may leave little to search.
bool CompressCall::ChooseIndex(const SearchWindow& window) {
  m_state.isMarked = m_state.isMarked && Has(LzsIndexMatchBodies);
  if (m_hasTriples) return true;
  const uint32_t left = m_sourceCount - m_state.next;
  if (!MayChooseTriples() || m_state.next < kBeforeTriples || left < kTripleSource ||
      WordRoom() < kTripleSource)
    return false;
  const uint32_t before = m_state.historyCount + m_state.next;
  m_triples.Build(m_area, window, m_state.next, m_state.position, std::min(before, kMaxOffset),
                  m_state.isMarked);
  m_state.isMarked = m_hasTriples = true;
  return true;
}

// False if there is no room for the inner loop.
bool CompressCall::SearchFast() {
  if (WordRoom() < kFastRoom) return false;
  const SearchWindow window = Window();
  FastCompression run{};
  run.window = window;
  run.next = m_state.next;
  run.stop = SearchEnd(window);
  run.position = m_state.position;
  run.history = m_state.historyCount;
  run.out = m_out;
  run.outLimit = m_out + WordRoom();
  run.bits = m_state.bits;
  run.bitCount = m_state.bitCount;
  if (run.next >= run.stop) return false;
  run.triples = ChooseIndex(window) ? &m_triples : nullptr;
  if (MayChooseTriples() && run.next < kBeforeTriples)
    run.stop = std::min(run.stop, kBeforeTriples);
  CompressFast(m_area, run, m_flags, m_effort);
  const bool hasMoved = run.next != m_state.next;
  m_state.next = run.next;
  m_state.position = run.position;
  m_out = run.out;
  m_state.bits = run.bits;
  m_state.bitCount = static_cast<uint8_t>(run.bitCount);
  if (run.unwritten.length != 0) {
    m_state.matchRest = run.unwritten.length;
    m_state.matchOffset = static_cast<uint16_t>(run.unwritten.offset);
    m_state.phase = WritePhase::Header;
  }
  return hasMoved;
}

// Collects a run of literals up to the next match or the end of the source.
void CompressCall::SearchRun() {
  m_state.phase = WritePhase::Literals;
  for (;;) {
    const SearchWindow window = Window();
    const uint32_t end = SearchEnd(window);
    if (m_state.next >= end) break;
    m_hasTriples = false;
    m_state.isMarked = m_state.isMarked && Has(LzsIndexMatchBodies);
    for (; m_state.next < end; ++m_state.next, ++m_state.position, ++m_state.literals) {
      const Match match = FindMatch(m_area, window, PlainHashes{m_source}, m_state.next,
                                    m_state.position, m_effort);
      if (match.length == 0) continue;
      m_state.position = EnterFound(window, match);
      m_state.next += match.length;
      m_state.matchRest = match.length;
      m_state.matchOffset = static_cast<uint16_t>(match.offset);
      return;
    }
    if (m_state.position >= kPositionCeiling) Rebase();
  }
  const uint32_t tail = m_sourceCount - m_state.next;
  MarkNotEntered(m_area, m_state.position, tail);
  m_state.literals += tail;
  m_state.position += tail;
  m_state.next = m_sourceCount;
}

uint32_t CompressCall::EnterFound(const SearchWindow& window, Match match) {
  const uint32_t next = m_state.next;
  const uint32_t position = m_state.position;
  const PlainHashes hashes{m_source};
  if (Has(LzsIndexMatchBodies))
    return EnterMatch<IndexMode::Bodies>(m_area, window, hashes, next, position, match);
  if (Has(LzsIndexMatchEnds))
    return EnterMatch<IndexMode::Ends>(m_area, window, hashes, next, position, match);
  return EnterMatch<IndexMode::None>(m_area, window, hashes, next, position, match);
}

bool CompressCall::WriteLiterals() {
  const uint32_t pending = m_state.literals;
  if (pending == 0) {
    m_state.phase = m_state.matchRest != 0 ? WritePhase::Header : WritePhase::Search;
    return true;
  }
  const unsigned char* first = m_source + (m_state.next - m_state.matchRest - pending);
  const bool isOdd = pending % 2 != 0;
  m_state.literals -= isOdd ? 1 : 2;
  if (isOdd) return Put(first[0], kLiteralBits);
  return Put(static_cast<uint32_t>(first[0]) << kLiteralBits | first[1], 2 * kLiteralBits);
}

bool CompressCall::WriteHeader() {
  const Code header = MatchHeader(m_state.matchOffset, m_state.matchRest);
  const bool isLong = m_state.matchRest >= kFirstGroupedLength;
  m_state.matchRest = isLong ? m_state.matchRest - kFirstGroupedLength : 0;
  m_state.phase = isLong ? WritePhase::Groups : WritePhase::Search;
  return Put(header.value, header.bits);
}

bool CompressCall::WriteGroups() {
  const uint32_t group = std::min(m_state.matchRest, kFullGroup);
  m_state.matchRest -= group;
  if (group < kFullGroup) m_state.phase = WritePhase::Search;
  return Put(group, kGroupBits);
}

bool CompressCall::WriteEndMarker() {
  m_state.phase = WritePhase::Padding;
  return Put(kEndMarker, kEndMarkerBits);
}

// The last bits of the unit, on whole bytes.
bool CompressCall::WritePadding() {
  m_state.phase = WritePhase::Finished;
  m_state.owedCount = static_cast<uint8_t>((m_state.bitCount + 7) / 8);
  m_state.owed = m_state.bitCount == 0 ? 0 : m_state.bits << (kWordBits - m_state.bitCount);
  m_state.bits = 0;
  m_state.bitCount = 0;
  return DeliverOwed();
}

// Adds a piece of at most kMaxPieceBits; false if that filled a word that does not fit.
bool CompressCall::Put(uint32_t value, unsigned width) {
  const uint64_t bits = static_cast<uint64_t>(m_state.bits) << width | value;
  const unsigned count = m_state.bitCount + width;
  if (count < kWordBits) {
    m_state.bits = static_cast<uint32_t>(bits);
    m_state.bitCount = static_cast<uint8_t>(count);
    return true;
  }
  const unsigned rest = count - kWordBits;
  m_state.bits = static_cast<uint32_t>(bits & ((uint64_t{1} << rest) - 1));
  m_state.bitCount = static_cast<uint8_t>(rest);
  m_state.owed = static_cast<uint32_t>(bits >> rest);
  m_state.owedCount = kWordSize;
  return WordRoom() >= kWordSize && DeliverOwed();
}

// Writes as many owed bytes as fit; true if that were all.
bool CompressCall::DeliverOwed() {
  while (m_state.owedCount != 0 && m_out != m_outEnd) {
    *m_out++ = static_cast<unsigned char>(m_state.owed >> 24);
    m_state.owed <<= 8;
    --m_state.owedCount;
  }
  return m_state.owedCount == 0;
}

// The destination is full: pause, or close the unit where that was asked for.
uint16_t CompressCall::Stop() {
  if (IsClosing()) return Close();
  DeliverOwed();
  m_state.unit = UnitState::Paused;
  if (m_state.phase < WritePhase::Padding) return LzsOutputFull;
  m_consumed = m_state.next;
  KeepInput();
  m_state.next = 0;
  return LzsOutputFull | LzsInputUsedUp;
}

// Ends the unit in the room reserved for that; the source is taken back to the first byte that no
// written piece stands for.
uint16_t CompressCall::Close() {
  const bool isInLength = m_state.phase == WritePhase::Groups;
  m_consumed = m_state.next - m_state.matchRest - m_state.literals;
  m_state.phase = WritePhase::Padding;
  DeliverOwed();
  if (isInLength) Put(0, kGroupBits);
  Put(kEndMarker, kEndMarkerBits);
  WritePadding();
  StartFresh();
  return LzsOutputFull | LzsUnitComplete;
}

// The source of the call is used up, and with LzsEndOfInput the unit is written.
uint16_t CompressCall::Complete() {
  m_consumed = m_state.next;
  const bool isAllUsed = m_consumed == m_sourceCount;
  const bool isUnitEnd = m_state.phase == WritePhase::Finished;
  uint16_t result = isAllUsed ? LzsInputUsedUp : 0;
  if (isUnitEnd) result |= LzsUnitComplete;
  if (isUnitEnd && !Has(LzsKeepHistory)) {
    StartFresh();
    return result;
  }
  KeepInput();
  m_state.phase = WritePhase::Search;
  m_state.unit = UnitState::Waiting;
  return result;
}

// Lets the buffer end with the last bytes of the source.
void CompressCall::KeepInput() {
  if (m_consumed >= kMaxOffset) {
    std::memcpy(m_area.buffer, m_source + m_consumed - kMaxOffset, kMaxOffset);
    m_state.historyCount = kMaxOffset;
    return;
  }
  if (m_state.historyCount == 0 && m_consumed != 0)
    std::memcpy(m_area.buffer, m_source, m_consumed);
  m_state.historyCount = static_cast<uint16_t>(m_state.historyCount + m_consumed);
}

void CompressCall::StartFresh() {
  m_state.unit = UnitState::Fresh;
  m_state.phase = WritePhase::Search;
  m_state.historyCount = 0;
  m_state.literals = 0;
  m_state.matchRest = 0;
  m_state.bits = 0;
  m_state.bitCount = 0;
  m_state.owedCount = 0;
}

}  // namespace

uint32_t RebasePositions(CompressionArea& area, uint32_t position) {
  const uint32_t shift = (position - kChainSize) / kChainSize * kChainSize;
  for (uint32_t i = 0; i < kHeadCount; ++i) {
    const uint32_t head = area.heads[i];
    area.heads[i] = position - head <= kMaxOffset ? head - shift : 0;
  }
  return position - shift;
}

}  // namespace lzs

uint16_t LzsSizeOfCompressionHistory() { return lzs::kCompressionAreaSize; }

uint16_t LzsInitCompressionHistory(void* history) {
  if (history == nullptr) return 0;
  auto& area = *static_cast<lzs::CompressionArea*>(history);
  const lzs::CompressionState state{};
  area.signature = lzs::kCompressionSignature;
  std::memcpy(area.state, &state, sizeof state);
  return 1;
}

uint16_t LzsCompress(const unsigned char** source, unsigned char** destination,
                     uint32_t* sourceCount, uint32_t* destinationCount, void* history,
                     uint16_t flags, uint16_t effort) {
  if (!source || !destination || !sourceCount || !destinationCount || !history) return 0;
  auto& area = *static_cast<lzs::CompressionArea*>(history);
  if ((flags & ~lzs::kAllFlags) != 0 || area.signature != lzs::kCompressionSignature) return 0;
  lzs::CompressCall call(area, flags, effort & 0xFF);
  if (call.IsRefused(*destinationCount)) return 0;
  return call.Run(source, destination, sourceCount, destinationCount);
}

}  // namespace capsule
