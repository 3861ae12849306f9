#include "capsule/state/library_state.h"

#include <gtest/gtest.h>

#include <thread>

#include "capsule/state/roots.h"

namespace capsule {
namespace {

TEST(LibraryStateTest, ScopesNestAndConcernTheirThreadAlone) {
  LibraryState& process = CurrentLibraryState();
  LibraryState outer;
  LibraryState inner;
  {
    const ScopedLibraryState outerScope(outer);
    EXPECT_EQ(&CurrentLibraryState(), &outer);
    {
      const ScopedLibraryState innerScope(inner);
      EXPECT_EQ(&CurrentLibraryState(), &inner);
      std::thread([&] { EXPECT_EQ(&CurrentLibraryState(), &process); }).join();
    }
    EXPECT_EQ(&CurrentLibraryState(), &outer);
  }
  EXPECT_EQ(&CurrentLibraryState(), &process);
}

TEST(LibraryStateTest, StatesShareNothing) {
  LibraryState one;
  LibraryState two;
  const ScopedLibraryState scope(one);
  platform::SetRoot('q', "/tmp");
  EXPECT_EQ(one.hostView.Resolve("q:\\x"), "/tmp/x");
  EXPECT_FALSE(two.hostView.Resolve("q:\\x"));
  platform::SetRoot('q', nullptr);
  EXPECT_FALSE(one.hostView.Resolve("q:\\x"));
}

}  // namespace
}  // namespace capsule
