// Members are kept as text, not as a tree of values: a tree would allocate when it is destroyed,
// and end the program when there is no memory.
#include "cli/json_object.h"

#include <nlohmann/json.hpp>

#include "cli/text.h"

namespace capsule::cli {
namespace {

// JSON need not escape U+007F to U+009F, but terminals obey some of them.
std::string WithoutControls(const std::string& json) {
  std::string text;
  for (size_t i = 0; i < json.size(); ++i) {
    const bool isC1 = json[i] == '\xC2' && i + 1 < json.size() && (json[i + 1] & 0x60) == 0;
    if (!isC1 && json[i] != '\x7F') {
      text += json[i];
      continue;
    }
    text += "\\u00" + ToHex(json.substr(isC1 ? ++i : i, 1));
  }
  return text;
}

}  // namespace

struct JsonObject::Members {
  template <typename Value>
  void Add(const char* key, const Value& value) {
    AddText(key, nlohmann::json(value).dump());
  }

  void AddText(const char* key, const std::string& json) {
    text += (text.empty() ? "" : ",") + nlohmann::json(key).dump() + ":" + json;
  }

  std::string text;
};

JsonObject::JsonObject() : m_members(std::make_unique<Members>()) {}
JsonObject::~JsonObject() = default;
JsonObject::JsonObject(JsonObject&& other) noexcept = default;
JsonObject& JsonObject::operator=(JsonObject&& other) noexcept = default;

JsonObject& JsonObject::Text(const char* key, std::string_view text) {
  m_members->Add(key, ToUtf8(text));
  return *this;
}

JsonObject& JsonObject::Path(std::string_view path) {
  Text("path", path);
  if (!IsUtf8(path)) m_members->Add("path_hex", ToHex(path));
  return *this;
}

JsonObject& JsonObject::Number(const char* key, uint64_t number) {
  m_members->Add(key, number);
  return *this;
}

JsonObject& JsonObject::Fraction(const char* key, double number) {
  m_members->Add(key, number);
  return *this;
}

JsonObject& JsonObject::Truth(const char* key, bool isTrue) {
  m_members->Add(key, isTrue);
  return *this;
}

JsonObject& JsonObject::Null(const char* key) {
  m_members->Add(key, nullptr);
  return *this;
}

JsonObject& JsonObject::List(const char* key, const std::vector<JsonObject>& objects) {
  std::string list;
  for (const JsonObject& object : objects) {
    list += (list.empty() ? "{" : ",{") + object.m_members->text + "}";
  }
  m_members->AddText(key, "[" + list + "]");
  return *this;
}

std::string JsonObject::Line() const { return WithoutControls("{" + m_members->text + "}\n"); }

}  // namespace capsule::cli
