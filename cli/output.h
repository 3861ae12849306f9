// Output is standard output, where data goes. A write that fails throws host::Error.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace capsule::cli {

class Output {
 public:
  Output();

  void Write(std::string_view text);
  void Write(std::span<const unsigned char> bytes);

  // A path as it is, or on a terminal as people can read it, between `before` and a line end.
  void WritePathLine(std::string_view before, std::string_view path, std::string_view after = "\n");

  // To be called at the end: data may be held back until then.
  void Flush();

 private:
  bool m_terminal;
};

}  // namespace capsule::cli
