// DebugTracer writes a plain-text trace to the file that an environment variable names.
#pragma once

#include <cstdio>

namespace capsule {

class DebugTracer {
 public:
  // Looks up the variable `base` (upper-cased), then `base` + "_TOFILE"; the first one set names
  // the file, which is created or emptied. Links are not followed. With neither set, or a file
  // that cannot be opened, or a path of 256 bytes or more, the tracer stays off.
  explicit DebugTracer(const char* base);
  ~DebugTracer();
  DebugTracer(const DebugTracer&) = delete;
  DebugTracer& operator=(const DebugTracer&) = delete;

  // Writes at most 1023 characters and flushes. 0 when the tracer is off, else 1.
  int Trace(const char* format, ...) __attribute__((format(printf, 2, 3)));

 private:
  std::FILE* m_pFile = nullptr;
  char m_szPath[256] = {};
  int m_nMode = 0;
  char m_szBase[256] = {};
  char m_szName[256] = {};
};

// The library's two tracers, built on first use and closed when the library is unloaded.
DebugTracer& IndexTracer();
DebugTracer& MainTracer();

}  // namespace capsule
