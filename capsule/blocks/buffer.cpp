// Memory comes in multiples of 2048 bytes, always strictly more than is needed. It grows at the end
// only: bytes that were read are given back when the buffer has been read empty or flushed.
#include "capsule/blocks/buffer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>

// The members are pointers into one block by the class's contract.
// NOLINTBEGIN(cppcoreguidelines-pro-bounds-pointer-arithmetic): cursors of the class interface

namespace capsule {

namespace {

constexpr int64_t kGranule = 2048;

int64_t RoundedUp(int64_t need) { return (need / kGranule + 1) * kGranule; }

unsigned char* Allocate(unsigned char* old, int64_t size) {
  if (size > std::numeric_limits<int32_t>::max()) return nullptr;
  return static_cast<unsigned char*>(std::realloc(old, static_cast<size_t>(size)));
}

char* AsChars(unsigned char* p) { return static_cast<char*>(static_cast<void*>(p)); }

}  // namespace

CapsuleBuffer::CapsuleBuffer(const CapsuleBuffer& source) {
  CapsuleBuffer::Add(source.m_pRead, source.Size());
}

CapsuleBuffer::~CapsuleBuffer() {
  if (m_bDontDelete == 0) std::free(m_pStart);
}

CapsuleBuffer& CapsuleBuffer::operator=(const CapsuleBuffer& source) {
  if (this == &source) return *this;
  if (m_bDontDelete != 0) {
    Defaults();
  } else {
    Flush();
  }
  Add(source.m_pRead, source.Size());
  return *this;
}

int CapsuleBuffer::HandleAllocation(int n) {
  if (n < 0) return 0;
  if (m_bDontDelete != 0) {
    const unsigned char* borrowed = m_pRead;
    const int length = Size();
    CleanUpMemory();
    if (length > std::numeric_limits<int>::max() - n || HandleAllocation(length + n) == 0) return 0;
    Add(borrowed, length);
    return 1;
  }
  if (m_pStart == nullptr) Defaults();
  if (m_pStart != nullptr && n <= m_nBytesLeft) return 1;

  const int64_t growth = RoundedUp(int64_t{n} - m_nBytesLeft);
  const int64_t size = m_nAllocSize + growth;
  const auto readAt = m_pRead - m_pStart;
  const auto writeAt = m_pWrite - m_pStart;
  unsigned char* block = Allocate(m_pStart, size);
  if (block == nullptr) return 0;
  m_pStart = block;
  m_pRead = block + readAt;
  m_pWrite = block + writeAt;
  m_pEnd = block + size;
  m_nAllocSize = static_cast<int32_t>(size);
  m_nBytesLeft = static_cast<int32_t>(m_nBytesLeft + growth);
  return 1;
}

int CapsuleBuffer::Add(unsigned char b) {
  if (HandleAllocation(1) == 0) return 0;
  *m_pWrite++ = b;
  --m_nBytesLeft;
  return 1;
}

int CapsuleBuffer::Add(const unsigned char* p, int n) {
  if (n <= 0 || p == nullptr) return 0;
  // Bytes of the buffer itself move with its memory.
  const bool own =
      m_bDontDelete == 0 && std::less_equal<>()(m_pStart, p) && std::less<>()(p, m_pEnd);
  const auto at = own ? p - m_pStart : 0;
  if (HandleAllocation(n) == 0) return 0;
  std::memmove(m_pWrite, own ? m_pStart + at : p, static_cast<size_t>(n));
  m_pWrite += n;
  m_nBytesLeft -= n;
  return n;
}

int CapsuleBuffer::AddLength(int n) {
  if (HandleAllocation(n) == 0) return 0;
  m_pWrite += n;
  m_nBytesLeft -= n;
  return 1;
}

int CapsuleBuffer::Read(unsigned char& b) { return CapsuleBuffer::Read(&b, 1); }

int CapsuleBuffer::Read(unsigned char* p, int n) {
  if (p == nullptr || n <= 0 || Size() == 0) return 0;
  const int count = std::min(n, Size());
  std::memcpy(p, m_pRead, static_cast<size_t>(count));
  m_pRead += count;
  if (m_pRead == m_pWrite) Flush();
  return count;
}

void CapsuleBuffer::RemoveByte(int pos, int count) {
  if (pos < 0 || count <= 0 || int64_t{pos} + count > Size()) return;
  unsigned char* hole = m_pRead + pos;
  std::memmove(hole, hole + count, static_cast<size_t>(Size() - pos - count));
  m_pWrite -= count;
  m_nBytesLeft += count;
}

void CapsuleBuffer::UseThisBuffer(const char* p, int len, int dontDelete, int allocSize) {
  CleanUpMemory();
  if (p == nullptr || len < 0 || allocSize < -1) return;
  m_pStart = static_cast<unsigned char*>(static_cast<void*>(const_cast<char*>(p)));
  m_pRead = m_pStart;
  m_pWrite = m_pStart + len;
  m_nAllocSize = allocSize == -1 ? len : allocSize;
  m_bDontDelete = dontDelete;
  m_pEnd = m_pStart + m_nAllocSize;
  m_nBytesLeft = m_nAllocSize - len;
}

void CapsuleBuffer::Flush() {
  if (m_pStart == nullptr) return;
  m_pRead = m_pStart;
  m_pWrite = m_pStart;
  m_nBytesLeft = m_nAllocSize;
}

void CapsuleBuffer::Defaults() {
  m_pStart = m_pRead = m_pWrite = m_pEnd = nullptr;
  m_nAllocSize = m_nBytesLeft = m_bDontDelete = 0;
}

void CapsuleBuffer::CleanUpMemory() {
  if (m_bDontDelete == 0) std::free(m_pStart);
  Defaults();
}

void CapsuleBuffer::DontDeleteTheBuffer() { m_bDontDelete = 1; }
int CapsuleBuffer::OkToDelete() const { return m_bDontDelete == 0 ? 1 : 0; }
unsigned char CapsuleBuffer::operator[](int i) const {
  const auto size = std::max(m_pEnd - m_pStart, m_pWrite - m_pStart);
  return i >= 0 && i < size ? m_pStart[i] : 0;
}
CapsuleBuffer::operator char*() const { return AsChars(m_pStart); }
const char* CapsuleBuffer::GetStart() const { return AsChars(m_pStart); }
char* CapsuleBuffer::GetRead() const { return AsChars(m_pRead); }
char* CapsuleBuffer::GetWrite() const { return AsChars(m_pWrite); }
int CapsuleBuffer::Size() const { return static_cast<int>(m_pWrite - m_pRead); }
int CapsuleBuffer::AllocSize() const { return m_nAllocSize; }
int CapsuleBuffer::BytesLeft() const { return m_nBytesLeft; }

}  // namespace capsule

// NOLINTEND(cppcoreguidelines-pro-bounds-pointer-arithmetic)
