// _ListNode is a singly linked list of strings' owners: path segments.
#pragma once

#include <cstdint>

#include "capsule/platform/cstring.h"

namespace capsule {

// A list is a pointer to its first node; null is the empty list.
struct _ListNode {
  CString* data;
  _ListNode* next;
};

// Links `data` at the end: 0, or 768 when memory runs out, the list then being as it was.
uint32_t AppendListNode(_ListNode** list, CString* data);

// Releases every node, and with `freeData` the strings too; the list becomes null.
void FreeList(_ListNode** list, bool freeData);

}  // namespace capsule
