#include "capsule/blocks/buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "tests/support/bytes.h"

namespace capsule {
namespace {

using test::Unsigned;

// What is left to read, as a copy has it.
std::string Content(const CapsuleBuffer& buffer) {
  const CapsuleBuffer copy(buffer);
  return {copy.GetRead(), static_cast<size_t>(copy.Size())};
}

TEST(CapsuleBuffer, MemoryComesInStepsAboveTheNeed) {
  const std::vector<unsigned char> bytes(2049, 'x');
  CapsuleBuffer one;
  EXPECT_EQ(one.Add(7), 1);
  EXPECT_EQ(one.AllocSize(), 2048);
  EXPECT_EQ(one.AddLength(2047), 1);
  EXPECT_EQ(one.Add(8), 1);
  EXPECT_EQ(one.AllocSize(), 4096);
  EXPECT_EQ(one.AddLength(2046), 1);
  EXPECT_EQ(one.BytesLeft(), 1);
  EXPECT_EQ(one.Add(bytes.data(), 2049), 2049);
  EXPECT_EQ(one.AllocSize(), 8192);

  CapsuleBuffer exact;
  EXPECT_EQ(exact.Add(bytes.data(), 2048), 2048);
  EXPECT_EQ(exact.AllocSize(), 4096);
  EXPECT_EQ(exact.Add(bytes.data(), 0), 0);
  EXPECT_EQ(exact.Add(nullptr, 5), 0);
}

TEST(CapsuleBuffer, BorrowedMemoryIsLeftAloneAndCopiedOnGrowth) {
  char memory[100] = "0123456789";
  CapsuleBuffer buffer;
  buffer.UseThisBuffer(memory, 10, 1, -1);
  EXPECT_EQ(buffer.AllocSize(), 10);
  EXPECT_EQ(buffer.BytesLeft(), 0);
  buffer.UseThisBuffer(memory, 10, 1, 100);
  EXPECT_EQ(buffer.BytesLeft(), 90);
  EXPECT_EQ(buffer.OkToDelete(), 0);
  unsigned char first = 0;
  EXPECT_EQ(buffer.Read(first), 1);
  EXPECT_EQ(buffer.Add('!'), 1);
  EXPECT_NE(buffer.GetStart(), memory);
  EXPECT_EQ(buffer.OkToDelete(), 1);
  EXPECT_EQ(buffer.AllocSize(), 2048);
  EXPECT_EQ(Content(buffer), "123456789!");

  CapsuleBuffer target;
  target.UseThisBuffer(memory, 10, 1, -1);
  target = buffer;
  EXPECT_EQ(Content(target), "123456789!");
  EXPECT_EQ(std::string(memory), "0123456789");
}

TEST(CapsuleBuffer, AgreesWithAPlainModel) {
  std::mt19937 random(20);
  CapsuleBuffer buffer;
  std::string model;
  std::vector<unsigned char> out(5000);
  for (int step = 0; step < 20000; ++step) {
    const auto count = static_cast<int>(random() % (step % 50 == 0 ? 5000 : 60));
    switch (random() % 4) {
      case 0: {
        const std::string bytes(static_cast<size_t>(count), static_cast<char>(step));
        ASSERT_EQ(buffer.Add(Unsigned(bytes), count), count);
        model += bytes;
        break;
      }
      case 1: {
        const int taken = std::min(count, static_cast<int>(model.size()));
        ASSERT_EQ(buffer.Read(out.data(), count), taken);
        ASSERT_TRUE(std::equal(out.begin(), out.begin() + taken, Unsigned(model)));
        model.erase(0, static_cast<size_t>(taken));
        ASSERT_TRUE(!model.empty() || buffer.BytesLeft() == buffer.AllocSize());
        const char* memory = buffer.GetStart();
        ASSERT_TRUE(memory == nullptr || buffer[0] == static_cast<unsigned char>(*memory));
        break;
      }
      case 2: {
        const int pos = static_cast<int>(random() % 60);
        buffer.RemoveByte(pos, count);
        if (pos + count <= static_cast<int>(model.size())) {
          model.erase(static_cast<size_t>(pos), static_cast<size_t>(count));
        }
        break;
      }
      default:
        if (step % 100 == 3) {
          buffer.Flush();
          model.clear();
        }
    }
    ASSERT_EQ(buffer.Size(), static_cast<int>(model.size()));
  }
  EXPECT_EQ(Content(buffer), model);
}

}  // namespace
}  // namespace capsule
