#include "capsule/runtime/debug_tracer.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

#include "capsule/platform/ascii.h"
#include "capsule/platform/trace_file.h"

namespace capsule {
namespace {

template <size_t Size>
bool Fits(const std::string& text, char (&field)[Size]) {
  if (text.size() >= Size) return false;
  std::memcpy(field, text.c_str(), text.size() + 1);
  return true;
}

// The variables are read when the library is loaded, whether or not anything is traced later.
[[maybe_unused]] const bool kBuiltAtLoad = (IndexTracer(), MainTracer(), true);

}  // namespace

DebugTracer::DebugTracer(const char* base) {
  if (!Fits(base, m_szBase)) return;
  const std::string name = platform::UpperAscii(m_szBase);
  const char* path = nullptr;
  for (const char* ending : {"", "_TOFILE"}) {
    if (path == nullptr && Fits(name + ending, m_szName)) path = std::getenv(m_szName);
  }
  if (path == nullptr || !Fits(path, m_szPath)) return;
  m_pFile = platform::OpenTraceFile(m_szPath, platform::TraceStart::Empty);
  if (m_pFile == nullptr) return;
  m_nMode = 1;
  Trace("==== BEGIN DEBUGGING ====\n");
}

DebugTracer::~DebugTracer() {
  if (m_pFile == nullptr) return;
  Trace("==== END DEBUGGING ====\n");
  static_cast<void>(std::fclose(m_pFile));
}

int DebugTracer::Trace(const char* format, ...) {
  if (m_nMode == 0) return 0;
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start is right above
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (length >= 0 && m_pFile != nullptr) {
    // What the file does not take is lost: a trace must not fail the work that it follows.
    static_cast<void>(std::fputs(text, m_pFile));
    static_cast<void>(std::fflush(m_pFile));
  }
  return 1;
}

DebugTracer& IndexTracer() {
  static DebugTracer tracer("THORNWICK_DEBUG_CAPCODEC_OUTPUT");
  return tracer;
}

DebugTracer& MainTracer() {
  static DebugTracer tracer("THORNWICK_DEBUG_TRACER");
  return tracer;
}

}  // namespace capsule
