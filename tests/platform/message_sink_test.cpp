#include "capsule/platform/message_sink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "capsule/platform/show_message.h"

namespace capsule::platform {
namespace {

// Standard error is a pipe.
class MessageSinkTest : public testing::Test {
 protected:
  MessageSinkTest() : m_saved(::dup(STDERR_FILENO)) {
    if (::pipe2(m_ends, O_NONBLOCK) != 0) ADD_FAILURE();
    ::fcntl(m_ends[1], F_SETFL, 0);  // a write that should block does
    ::dup2(m_ends[1], STDERR_FILENO);
  }
  ~MessageSinkTest() override {
    ::dup2(m_saved, STDERR_FILENO);
    for (const int descriptor : {m_saved, m_ends[0], m_ends[1]}) ::close(descriptor);
  }

  std::string Take() {
    std::string text(1 << 20, '\0');
    const ssize_t taken = ::read(m_ends[0], text.data(), text.size());
    text.resize(taken < 0 ? 0 : static_cast<size_t>(taken));
    return text;
  }
  void CloseReader() { ::close(std::exchange(m_ends[0], -1)); }

 private:
  int m_saved;
  int m_ends[2] = {-1, -1};
};

TEST_F(MessageSinkTest, TheDefaultWritesOneLineUnlessAHostsSinkTakesIt) {
  std::vector<std::string> shown;
  SetMessageSink(
      [](const char* message, void* context) {
        static_cast<std::vector<std::string>*>(context)->emplace_back(message);
      },
      &shown);
  ShowMessage("one");
  SetMessageSink(nullptr, nullptr);
  ShowMessage("odd\nname\x1B[2J: caf\xC3\xA9");
  EXPECT_EQ(Take(), "odd name [2J: caf\xC3\xA9\n");
  ShowMessage(std::string(100000, 'x').c_str());
  EXPECT_EQ(Take(), std::string(4095, 'x') + "\n");
  EXPECT_EQ(shown, std::vector<std::string>{"one"});
}

TEST_F(MessageSinkTest, TheDefaultNeitherBlocksNorKills) {
  for (int i = 0; i < 100000; ++i) ShowMessage("nobody reads this");
  EXPECT_FALSE(Take().empty());
  CloseReader();
  ShowMessage("a broken pipe would raise a signal");
}

}  // namespace
}  // namespace capsule::platform
