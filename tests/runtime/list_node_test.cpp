#include "capsule/runtime/list_node.h"

#include <gtest/gtest.h>

#include <new>

namespace {
bool g_bOutOfMemory = false;
}

// The allocation that list nodes use, made to fail on demand.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  if (g_bOutOfMemory) return nullptr;
  try {
    return ::operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

namespace capsule {
namespace {

TEST(ListNodeTest, AppendsInOrderAndFreesTheStringsToo) {
  _ListNode* list = nullptr;
  for (const char* text : {"C:", "", "b"}) {
    ASSERT_EQ(AppendListNode(&list, new CString(text)), 0U);
  }
  EXPECT_EQ(*list->data, "C:");
  EXPECT_EQ(*list->next->data, "");
  EXPECT_EQ(*list->next->next->data, "b");
  EXPECT_EQ(list->next->next->next, nullptr);
  FreeList(&list, true);  // a leak or a second release shows under the address sanitizer
  EXPECT_EQ(list, nullptr);
  FreeList(&list, true);
}

TEST(ListNodeTest, TheStringsOutliveTheListWhenAsked) {
  CString text = "kept";
  _ListNode* list = nullptr;
  ASSERT_EQ(AppendListNode(&list, &text), 0U);
  FreeList(&list, false);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(text, "kept");
}

TEST(ListNodeTest, OutOfMemoryLeavesTheListAsItWas) {
  CString text = "a";
  _ListNode* list = nullptr;
  g_bOutOfMemory = true;
  EXPECT_EQ(AppendListNode(&list, &text), 768U);
  EXPECT_EQ(list, nullptr);
  g_bOutOfMemory = false;
  ASSERT_EQ(AppendListNode(&list, &text), 0U);
  g_bOutOfMemory = true;
  EXPECT_EQ(AppendListNode(&list, &text), 768U);
  g_bOutOfMemory = false;
  EXPECT_EQ(list->next, nullptr);
  FreeList(&list, false);
}

}  // namespace
}  // namespace capsule
