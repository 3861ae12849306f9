// The codec once more, slow and obvious: every input byte kept, bits one by one, no buffers. It is
// what the codec is compared with, over random calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace capsule::test {

using Bytes = std::vector<unsigned char>;

// The low `width` bits of a value, the highest first.
template <typename Bits>
void AppendBits(Bits& bits, uint32_t value, unsigned width) {
  for (unsigned i = width; i-- > 0;) bits.push_back((value >> i & 1) != 0);
}

// The side that a call left unfinished.
enum class Saved { None, Source, Destination };

// What one call did. `consumed` counts from where the source side stood when it was offered, and
// `out` holds the bytes written by this call, both whether or not the side is finished.
struct ModelResult {
  uint16_t word = 0;
  uint32_t consumed = 0;
  Bytes out;
  bool isIdle = false;  // returned at once: neither side was stored
};

class ModelCompressor {
 public:
  // A source or room is ignored while the model holds an unfinished one.
  ModelResult Call(const Bytes& source, uint32_t room, uint16_t flags, unsigned effort);

 private:
  struct Piece {
    std::vector<bool> bits = {};
    uint32_t stands = 0;  // source bytes that are written once this piece is
    bool groupsFollow = false;
    bool isEnd = false;
  };
  struct Found {
    uint32_t length = 0;
    uint32_t offset = 0;
  };

  bool IsRefused(uint32_t room, uint16_t flags) const;
  void ChooseTokens(uint16_t flags, unsigned effort);
  void AddLiterals(uint32_t from, uint32_t to);
  void AddMatch(uint32_t at, Found match);
  void Enter(std::size_t position);
  void EnterMatch(std::size_t position, Found match, uint16_t flags);
  Found Search(std::size_t position, unsigned effort) const;
  bool Same(std::size_t a, std::size_t b, uint32_t count) const;
  bool NextCandidate(std::size_t position, std::size_t& candidate) const;
  bool WritePieces(bool mayClose, ModelResult& result);
  bool WriteWord(bool mayClose, bool isEnd, ModelResult& result);
  void OweByte();
  bool WriteOwed(ModelResult& result);
  void Close(bool groupsFollow, ModelResult& result);
  void Reset();

  // Of the series of units: all bytes since the fresh start, and the index.
  Bytes m_bytes;
  std::size_t m_callStart = 0;
  std::vector<long> m_previous;
  std::vector<long> m_heads = std::vector<long>(2003, -1);
  // Of the unit.
  std::deque<Piece> m_pieces;
  std::vector<bool> m_bits;
  Bytes m_owed;
  // Between calls.
  Saved m_saved = Saved::None;
  uint16_t m_savedFlags = 0;
  bool m_isFresh = true;
  bool m_isPaused = false;
  bool m_isEnding = false;
  uint32_t m_sourceSize = 0;
  uint32_t m_stands = 0;
  uint32_t m_room = 0;
};

class ModelDecompressor {
 public:
  ModelResult Call(const Bytes& source, uint32_t room, uint16_t flags);

 private:
  enum class End { NeedInput, Full, Unit, Corrupt };
  ModelResult CopyStored();
  End Decode(ModelResult& result);
  bool Token(ModelResult& result, End& end);
  void Put(unsigned char byte, ModelResult& result);
  bool Take(std::size_t& at, unsigned count, uint32_t& value) const;
  void Drop(std::size_t count) {
    m_bits.erase(m_bits.begin(), m_bits.begin() + static_cast<long>(count));
  }

  std::deque<bool> m_bits;  // not yet decoded, carried ones first
  std::size_t m_carriedBytes = 0;
  Bytes m_history;
  uint64_t m_rest = 0;
  uint32_t m_offset = 0;
  bool m_inGroups = false;
  bool m_isInUnit = false;
  bool m_isCorrupt = false;
  Saved m_saved = Saved::None;
  uint32_t m_sourceSize = 0;
  uint32_t m_sourceLeft = 0;
  uint32_t m_room = 0;
  Bytes m_source;
};

}  // namespace capsule::test
