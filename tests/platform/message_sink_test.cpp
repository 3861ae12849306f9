#include "capsule/platform/message_sink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace capsule::platform {
namespace {

// Standard error as a pipe, for the length of a scope.
class ErrorPipe {
 public:
  ErrorPipe() : m_nSaved(::dup(STDERR_FILENO)) {
    if (::pipe2(m_nEnds, O_NONBLOCK) != 0) ADD_FAILURE();
    ::fcntl(m_nEnds[1], F_SETFL, 0);  // a write that should block does
    ::dup2(m_nEnds[1], STDERR_FILENO);
  }
  ~ErrorPipe() {
    ::dup2(m_nSaved, STDERR_FILENO);
    for (const int descriptor : {m_nSaved, m_nEnds[0], m_nEnds[1]}) ::close(descriptor);
  }
  ErrorPipe(const ErrorPipe&) = delete;
  ErrorPipe& operator=(const ErrorPipe&) = delete;

  std::string Take() {
    std::string text(1 << 20, '\0');
    const ssize_t taken = ::read(m_nEnds[0], text.data(), text.size());
    text.resize(taken < 0 ? 0 : static_cast<size_t>(taken));
    return text;
  }
  void CloseReader() { ::close(std::exchange(m_nEnds[0], -1)); }

 private:
  int m_nSaved;
  int m_nEnds[2] = {-1, -1};
};

TEST(MessageSinkTest, TheDefaultWritesOneLine) {
  ErrorPipe pipe;
  ShowMessage("odd\nname\x1B[2J: caf\xC3\xA9");
  EXPECT_EQ(pipe.Take(), "odd name [2J: caf\xC3\xA9\n");
  ShowMessage(std::string(100000, 'x').c_str());
  const std::string cut = pipe.Take();
  EXPECT_EQ(cut.size(), 4096U);
  EXPECT_EQ(cut.back(), '\n');
}

TEST(MessageSinkTest, TheDefaultNeitherBlocksNorKills) {
  ErrorPipe pipe;
  for (int i = 0; i < 100000; ++i) ShowMessage("nobody reads this");
  EXPECT_FALSE(pipe.Take().empty());
  pipe.CloseReader();
  ShowMessage("a broken pipe would raise a signal");
}

TEST(MessageSinkTest, AHostsSinkTakesAllUntilItIsTakenBack) {
  ErrorPipe pipe;
  std::vector<std::string> shown;
  SetMessageSink(
      [](const char* message, void* context) {
        static_cast<std::vector<std::string>*>(context)->emplace_back(message);
      },
      &shown);
  ShowMessage("one");
  SetMessageSink(nullptr, nullptr);
  ShowMessage("two");
  EXPECT_EQ(shown, std::vector<std::string>{"one"});
  EXPECT_EQ(pipe.Take(), "two\n");
}

}  // namespace
}  // namespace capsule::platform
