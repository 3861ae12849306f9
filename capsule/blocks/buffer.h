// CapsuleBuffer is a growable block of bytes with a read and a write cursor.
//
// It owns its memory (runtime heap, in multiples of 2048 bytes) or borrows the caller's
// (UseThisBuffer). Borrowed memory is never freed, and RemoveByte alone writes to it: the first
// append copies the content into memory of the buffer's own.
// m_pStart <= m_pRead <= m_pWrite <= m_pEnd; the content is what lies from m_pRead to m_pWrite.
// A null pointer or a negative length is refused: the result is 0 and nothing changes. One thread
// uses a buffer at a time.
//
//   CapsuleBuffer name;
//   name.Add(bytes, count);
//   while (name.Read(b)) Use(b);
#pragma once

#include <cstdint>

#include "capsule/export.h"

namespace capsule {

class CAPSULE_API CapsuleBuffer {
 public:
  CapsuleBuffer() = default;
  CapsuleBuffer(const CapsuleBuffer& source);
  virtual ~CapsuleBuffer();

  // Deep copy of the source's unread content; the copy starts at its own start.
  CapsuleBuffer& operator=(const CapsuleBuffer& source);

  // Takes 1 or up to `n` bytes from the front; how many were taken. A buffer read empty starts
  // again at its beginning and keeps its memory.
  virtual int Read(unsigned char& b);
  virtual int Read(unsigned char* p, int n);

  // Appends; how many bytes were appended, 0 without memory. `p` may lie in the buffer itself.
  virtual int Add(unsigned char b);
  virtual int Add(const unsigned char* p, int n);

  // Frees owned memory and zeroes every member.
  virtual void CleanUpMemory();

  // Makes sure that `n` more bytes fit in owned memory: 1, or 0 without memory. Borrowed content is
  // copied in any case; without memory for that the buffer is empty afterwards.
  int HandleAllocation(int n);

  // Appends `n` bytes of whatever the memory holds: 1 or 0.
  int AddLength(int n);

  // Removes `count` bytes that begin `pos` bytes behind the read cursor, if there are that many.
  void RemoveByte(int pos, int count);

  // Adopts `p` with `len` bytes of content in a block of `allocSize` bytes (-1: `len`). With
  // `dontDelete` 0 the block, from malloc, is the buffer's to free. Null memory or a negative size
  // leave the buffer empty.
  void UseThisBuffer(const char* p, int len, int dontDelete, int allocSize);

  // Empties the buffer and keeps its memory.
  void Flush();

  // Zeroes every member and frees nothing: the memory is the caller's from then on.
  void Defaults();

  // Leaves the memory to the caller: the buffer treats it as borrowed from then on.
  void DontDeleteTheBuffer();

  // 1 when the buffer owns its memory or has none.
  int OkToDelete() const;

  // The byte `i` bytes behind the start of the memory, read or not; 0 outside of the memory.
  unsigned char operator[](int i) const;

  // Start of the memory, read cursor and write cursor: null without memory, and valid until the
  // buffer next changes.
  operator char*() const;
  const char* GetStart() const;
  char* GetRead() const;
  char* GetWrite() const;

  int Size() const;       // bytes of content, not read yet
  int AllocSize() const;  // bytes of memory
  int BytesLeft() const;  // of them behind the write cursor

 private:
  unsigned char* m_pStart = nullptr;
  unsigned char* m_pRead = nullptr;
  unsigned char* m_pWrite = nullptr;
  unsigned char* m_pEnd = nullptr;
  int32_t m_nAllocSize = 0;
  int32_t m_nBytesLeft = 0;
  int32_t m_bDontDelete = 0;
};

}  // namespace capsule
