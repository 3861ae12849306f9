#include "capsule/runtime/list_node.h"

#include <gtest/gtest.h>

#include "tests/support/failing_allocations.h"

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

TEST(ListNodeTest, OutOfMemoryLeavesTheListAndFreeingItTheStrings) {
  CString text = "kept";
  _ListNode* list = nullptr;
  for (const size_t length : {0U, 1U}) {
    _ListNode* const before = list;
    {
      const test::FailingAllocation fails(0);
      EXPECT_EQ(AppendListNode(&list, &text), 768U) << length;
    }
    EXPECT_EQ(list, before);
    ASSERT_EQ(AppendListNode(&list, &text), 0U);
  }
  ASSERT_NE(list->next, nullptr);
  EXPECT_EQ(list->next->next, nullptr);
  FreeList(&list, false);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(text, "kept");
}

}  // namespace
}  // namespace capsule
