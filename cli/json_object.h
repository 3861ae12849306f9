// One JSON object, its members in the order they are added. nlohmann's header is behind it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace capsule::cli {

class JsonObject {
 public:
  JsonObject();
  ~JsonObject();
  JsonObject(JsonObject&& other) noexcept;
  JsonObject& operator=(JsonObject&& other) noexcept;

  // Text that is not UTF-8 is made so, segment by segment as in a path.
  JsonObject& Text(const char* key, std::string_view text);

  // "path", and "path_hex" with its bytes where it is not UTF-8.
  JsonObject& Path(std::string_view path);

  JsonObject& Number(const char* key, uint64_t number);
  JsonObject& Fraction(const char* key, double number);
  JsonObject& Truth(const char* key, bool isTrue);
  JsonObject& Null(const char* key);
  JsonObject& List(const char* key, const std::vector<JsonObject>& objects);

  // In one line, with its line end.
  std::string Line() const;

 private:
  struct Members;
  std::unique_ptr<Members> m_members;
};

}  // namespace capsule::cli
