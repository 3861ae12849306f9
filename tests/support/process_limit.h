// A limit of the process, as long as it lives; writing beyond the size of files is an error, no
// signal.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

namespace capsule::test {

class ProcessLimit {
 public:
  using Resource = decltype(RLIMIT_FSIZE);

  ProcessLimit(Resource what, rlim_t most) : m_what(what) {
    EXPECT_EQ(::getrlimit(what, &m_old), 0);
    const rlimit low{most, m_old.rlim_max};
    EXPECT_EQ(::setrlimit(what, &low), 0);
  }
  ~ProcessLimit() {
    EXPECT_EQ(::setrlimit(m_what, &m_old), 0);
    std::signal(SIGXFSZ, m_handler);
  }
  ProcessLimit(const ProcessLimit&) = delete;
  ProcessLimit& operator=(const ProcessLimit&) = delete;

 private:
  Resource m_what;
  rlimit m_old{};
  void (*m_handler)(int) = std::signal(SIGXFSZ, SIG_IGN);
};

}  // namespace capsule::test
