#include "capsule/runtime/list_node.h"

#include <new>

namespace capsule {

uint32_t AppendListNode(_ListNode** list, CString* data) {
  constexpr uint32_t kOutOfMemory = 768;
  auto* node = new (std::nothrow) _ListNode{data, nullptr};
  if (node == nullptr) return kOutOfMemory;
  while (*list != nullptr) list = &(*list)->next;
  *list = node;
  return 0;
}

void FreeList(_ListNode** list, bool freeData) {
  while (*list != nullptr) {
    _ListNode* node = *list;
    *list = node->next;
    if (freeData) delete node->data;
    delete node;
  }
}

}  // namespace capsule
