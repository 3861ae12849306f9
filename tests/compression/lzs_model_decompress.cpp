#include "capsule/compression/lzs.h"
#include "lzs_model.h"

namespace capsule::test {

ModelResult ModelDecompressor::Call(const Bytes& source, uint32_t room, uint16_t flags) {
  ModelResult result;
  if ((flags & ~6) != 0 || m_isCorrupt) return result;
  const bool isStored = (flags & LzsStoredBlock) != 0;
  const bool isIdle = m_history.empty() && m_bits.empty() && !m_isInUnit && m_saved == Saved::None;
  if (!isStored && source.empty() && isIdle) {
    result.word = LzsInputUsedUp;
    result.isIdle = true;
    return result;
  }
  const bool newSource = m_saved != Saved::Source;
  const auto offered = static_cast<uint32_t>(newSource ? source.size() : m_sourceLeft);
  const uint32_t space = m_saved == Saved::Destination ? m_room : room;
  if (isStored && (offered != space || m_isInUnit || m_carriedBytes != 0)) return result;
  if (newSource) {
    m_source = source;
    m_sourceSize = m_sourceLeft = offered;
    if (!isStored)
      for (const unsigned char byte : source) AppendBits(m_bits, byte, 8);
  }
  m_room = space;
  m_saved = Saved::None;
  if (isStored) {
    if (!newSource) m_bits.clear();
    return CopyStored();
  }

  const std::size_t before = m_bits.size();
  const End end = Decode(result);
  if (end == End::Corrupt) {
    m_isCorrupt = true;
    return {};
  }
  const std::size_t bytesLeft = (m_bits.size() + 7) / 8;
  if (m_bits.size() != before) m_carriedBytes = 0;
  m_sourceLeft = static_cast<uint32_t>(bytesLeft - m_carriedBytes);
  if (end == End::NeedInput) {
    m_carriedBytes = bytesLeft;
    m_sourceLeft = 0;
  }
  result.consumed = m_sourceSize - m_sourceLeft;
  result.word = static_cast<uint16_t>((m_sourceLeft == 0 ? LzsInputUsedUp : 0) |
                                      (m_room == 0 ? LzsOutputFull : 0) |
                                      (end == End::Unit ? LzsUnitComplete : 0));
  if (result.word == LzsOutputFull) m_saved = Saved::Source;
  if (result.word == LzsInputUsedUp) m_saved = Saved::Destination;
  if (end == End::Unit) {
    m_bits.clear();  // what lies behind the unit is offered again
    m_isInUnit = false;
    if ((flags & LzsKeepHistory) == 0) m_history.clear();
  }
  return result;
}

ModelResult ModelDecompressor::CopyStored() {
  ModelResult result;
  result.word = LzsInputUsedUp | LzsOutputFull;
  result.out.assign(m_source.end() - static_cast<long>(m_sourceLeft), m_source.end());
  result.consumed = m_sourceSize;
  m_history.insert(m_history.end(), result.out.begin(), result.out.end());
  return result;
}

ModelDecompressor::End ModelDecompressor::Decode(ModelResult& result) {
  for (;;) {
    End end = End::NeedInput;
    if (m_rest == 0 && !Token(result, end)) return end;
    for (; m_rest > 0; --m_rest) {
      if (m_room == 0) return End::Full;
      Put(m_history[m_history.size() - m_offset], result);
    }
  }
}

void ModelDecompressor::Put(unsigned char byte, ModelResult& result) {
  m_history.push_back(byte);
  result.out.push_back(byte);
  --m_room;
}

bool ModelDecompressor::Take(std::size_t& at, unsigned count, uint32_t& value) const {
  if (m_bits.size() < at + count) return false;
  value = 0;
  for (unsigned i = 0; i < count; ++i) value = value * 2 + (m_bits[at++] ? 1U : 0U);
  return true;
}

// One token or group; false with the reason if it cannot be had.
bool ModelDecompressor::Token(ModelResult& result, End& end) {
  std::size_t at = 0;
  uint32_t value = 0;
  if (m_inGroups) {
    if (!Take(at, 4, value)) return false;
    Drop(at);
    m_rest = value;
    m_inGroups = value == 15;
    return true;
  }
  if (!Take(at, 1, value)) return false;
  if (value == 0) {
    if (!Take(at, 8, value)) return false;
    end = End::Full;
    if (m_room == 0) return false;
    Drop(at);
    m_isInUnit = true;
    Put(static_cast<unsigned char>(value), result);
    return true;
  }
  uint32_t isShort = 0;
  uint32_t offset = 0;
  if (!Take(at, 1, isShort) || !Take(at, isShort != 0 ? 7 : 11, offset)) return false;
  if (isShort != 0 && offset == 0) {
    Drop(at);
    Drop(m_bits.size() % 8);
    end = End::Unit;
    return false;
  }
  uint32_t length = 0;
  bool groups = false;
  if (!Take(at, 2, length)) return false;
  length += 2;
  if (length == 5) {
    if (!Take(at, 2, value)) return false;
    length = 5 + value;
    groups = value == 3;
  }
  end = m_room == 0 ? End::Full : End::Corrupt;
  if (m_room == 0 || offset == 0 || offset > m_history.size()) return false;
  Drop(at);
  m_isInUnit = true;
  m_offset = offset;
  m_rest = length;
  m_inGroups = groups;
  return true;
}

}  // namespace capsule::test
