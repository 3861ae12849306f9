#include "capsule/compression/lzs.h"
#include "lzs_model.h"

namespace capsule::test {

ModelResult ModelCompressor::Call(const Bytes& source, uint32_t room, uint16_t flags,
                                  unsigned effort) {
  ModelResult result;
  if (IsRefused(room, flags)) return result;
  if (m_saved != Saved::Destination) m_room = room;
  const bool isContinued = m_saved == Saved::Source;
  if (!isContinued) {
    m_sourceSize = static_cast<uint32_t>(source.size());
    m_stands = 0;
  }
  const bool isResumedEnd = m_isPaused && m_isEnding;
  if (!isContinued && !isResumedEnd) {
    m_callStart = m_bytes.size();
    m_bytes.insert(m_bytes.end(), source.begin(), source.end());
    m_previous.resize(m_bytes.size(), -1);
    ChooseTokens(flags, effort & 0xFF);
  }
  m_isFresh = false;
  m_isPaused = false;
  m_savedFlags = flags;
  if (!WritePieces((flags & LzsCloseOnFullOutput) != 0, result)) {
    if (result.word == 0) {
      m_isPaused = true;
      result.word = static_cast<uint16_t>(LzsOutputFull | (m_isEnding ? LzsInputUsedUp : 0));
      m_saved = m_isEnding ? Saved::None : Saved::Source;
      result.consumed = m_sourceSize;
    }
    return result;
  }
  if (!isResumedEnd || m_sourceSize == 0) result.word = LzsInputUsedUp;
  result.consumed = isResumedEnd ? 0 : m_sourceSize;
  m_saved = Saved::Destination;
  if (m_isEnding) {
    result.word |= LzsUnitComplete;
    m_saved = Saved::None;
    m_isEnding = false;
    if ((flags & LzsKeepHistory) == 0) Reset();
  }
  return result;
}

bool ModelCompressor::IsRefused(uint32_t room, uint16_t flags) const {
  if (flags > 0x1F) return true;
  const int changed = flags ^ m_savedFlags;
  if (m_saved == Saved::Destination) return (changed & LzsCloseOnFullOutput) != 0;
  if (m_saved == Saved::Source && (changed & LzsEndOfInput) != 0) return true;
  const bool mayBeSmall = !m_isFresh && !(m_isPaused && (m_savedFlags & LzsEndOfInput) != 0);
  return room < 16 && !mayBeSmall;
}

void ModelCompressor::Reset() {
  const uint16_t flags = m_savedFlags;
  *this = ModelCompressor();
  m_savedFlags = flags;
}

void ModelCompressor::ChooseTokens(uint16_t flags, unsigned effort) {
  uint32_t runStart = 0;
  uint32_t at = 0;
  while (m_sourceSize - at >= 5) {
    const std::size_t position = m_callStart + at;
    Enter(position);
    const Found match = Search(position, effort);
    if (match.length == 0) {
      ++at;
      continue;
    }
    EnterMatch(position, match, flags);
    AddLiterals(runStart, at);
    AddMatch(at, match);
    at += match.length;
    runStart = at;
  }
  AddLiterals(runStart, m_sourceSize);
  if ((flags & LzsEndOfInput) == 0) return;
  Piece end{.stands = m_sourceSize, .isEnd = true};
  AppendBits(end.bits, 0x180, 9);
  m_pieces.push_back(end);
}

void ModelCompressor::AddLiterals(uint32_t from, uint32_t to) {
  while (from < to) {
    const uint32_t count = (to - from) % 2 != 0 ? 1 : 2;
    Piece piece{.stands = from + count};
    for (uint32_t i = 0; i < count; ++i) AppendBits(piece.bits, m_bytes[m_callStart + from + i], 9);
    from += count;
    m_pieces.push_back(piece);
  }
}

void ModelCompressor::AddMatch(uint32_t at, Found match) {
  const bool isLong = match.length >= 8;
  Piece header{.stands = at + (isLong ? 8 : match.length), .groupsFollow = isLong};
  AppendBits(header.bits, match.offset < 128 ? 3 : 2, 2);
  AppendBits(header.bits, match.offset, match.offset < 128 ? 7 : 11);
  if (match.length < 5)
    AppendBits(header.bits, match.length - 2, 2);
  else
    AppendBits(header.bits, isLong ? 15 : 7 + match.length, 4);
  m_pieces.push_back(header);
  if (!isLong) return;
  uint32_t rest = match.length - 8;
  for (bool isLast = false; !isLast;) {
    const uint32_t group = rest < 15 ? rest : 15;
    isLast = group < 15;
    rest -= group;
    Piece piece{.stands = at + match.length - rest, .groupsFollow = !isLast};
    AppendBits(piece.bits, group, 4);
    m_pieces.push_back(piece);
  }
}

void ModelCompressor::Enter(std::size_t position) {
  const unsigned hash = (m_bytes[position] * 256U + m_bytes[position + 1]) % 2003;
  m_previous[position] = m_heads[hash];
  m_heads[hash] = static_cast<long>(position);
}

void ModelCompressor::EnterMatch(std::size_t position, Found match, uint16_t flags) {
  const bool bodies = (flags & LzsIndexMatchBodies) != 0;
  if (!bodies && (flags & LzsIndexMatchEnds) == 0) return;
  const bool isLastOnly = !bodies || match.offset < 2;
  for (uint32_t i = isLastOnly ? match.length - 1 : 1; i < match.length; ++i)
    if (position + i + 1 < m_bytes.size()) Enter(position + i);
}

bool ModelCompressor::Same(std::size_t a, std::size_t b, uint32_t count) const {
  for (uint32_t i = 0; i < count; ++i)
    if (m_bytes[a + i] != m_bytes[b + i]) return false;
  return true;
}

bool ModelCompressor::NextCandidate(std::size_t position, std::size_t& candidate) const {
  const long previous = m_previous[candidate];
  if (previous < 0 || position - static_cast<std::size_t>(previous) > 2047) return false;
  candidate = static_cast<std::size_t>(previous);
  return true;
}

ModelCompressor::Found ModelCompressor::Search(std::size_t position, unsigned effort) const {
  std::size_t candidate = position;
  if (!NextCandidate(position, candidate)) return {};
  unsigned tried = 0;
  while (!Same(position, candidate, 2))
    if (tried++ == effort || !NextCandidate(position, candidate)) return {};
  const Found two{2, static_cast<uint32_t>(position - candidate)};
  tried = 0;
  while (!Same(position, candidate, 3))
    if (tried++ == effort || !NextCandidate(position, candidate)) return two;

  Found best{3, static_cast<uint32_t>(position - candidate)};
  int counter = static_cast<int>(effort);
  for (;;) {
    counter -= 1;
    if (Same(position, candidate, 4)) {
      counter -= 1;
      uint32_t length = 4;
      if (Same(position + 4, candidate + 4, 1)) {
        length = 5;
        while (position + length + 2 <= m_bytes.size() &&
               Same(position + length, candidate + length, 2))
          length += 2;
        if (position + length + 2 <= m_bytes.size() &&
            Same(position + length, candidate + length, 1))
          length += 1;
      }
      if (length > best.length) best = {length, static_cast<uint32_t>(position - candidate)};
      if (length >= 57) counter = 0;
    }
    if (counter <= 0 || !NextCandidate(position, candidate)) return best;
  }
}

// Writes what is pending; false if the destination is full, with the result set if it was closed.
bool ModelCompressor::WritePieces(bool mayClose, ModelResult& result) {
  if (!WriteOwed(result)) return false;
  while (!m_pieces.empty()) {
    const Piece piece = m_pieces.front();
    m_pieces.pop_front();
    m_bits.insert(m_bits.end(), piece.bits.begin(), piece.bits.end());
    m_stands = piece.stands;
    m_isEnding = piece.isEnd;
    if (m_bits.size() >= 32 && !WriteWord(mayClose, piece.isEnd, result)) {
      if (mayClose && !piece.isEnd && m_room >= 8)
        Close(piece.groupsFollow, result);
      else
        WriteOwed(result);
      return false;
    }
  }
  if (!m_isEnding) return true;
  while (m_bits.size() % 8 != 0) m_bits.push_back(false);
  while (!m_bits.empty()) OweByte();
  return WriteOwed(result);
}

// Takes a full word off the bits; the last 12 bytes are for closing, if there is room for that.
bool ModelCompressor::WriteWord(bool mayClose, bool isEnd, ModelResult& result) {
  for (int i = 0; i < 4; ++i) OweByte();
  const uint32_t reserve = mayClose && !isEnd && m_room >= 8 ? 12 : 0;
  return m_room >= reserve + 4 && WriteOwed(result);
}

void ModelCompressor::OweByte() {
  unsigned value = 0;
  for (std::size_t i = 0; i < 8; ++i) value = value * 2 + (m_bits[i] ? 1 : 0);
  m_owed.push_back(static_cast<unsigned char>(value));
  m_bits.erase(m_bits.begin(), m_bits.begin() + 8);
}

bool ModelCompressor::WriteOwed(ModelResult& result) {
  for (; !m_owed.empty() && m_room != 0; --m_room) {
    result.out.push_back(m_owed.front());
    m_owed.erase(m_owed.begin());
  }
  return m_owed.empty();
}

void ModelCompressor::Close(bool groupsFollow, ModelResult& result) {
  if (groupsFollow) AppendBits(m_bits, 0, 4);
  m_pieces.clear();
  AppendBits(m_bits, 0x180, 9);
  m_isEnding = true;
  WritePieces(false, result);
  result.word = LzsOutputFull | LzsUnitComplete;
  result.consumed = m_stands;
  Reset();
}

}  // namespace capsule::test
