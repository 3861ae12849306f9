// How aliases are made.
//
// A name is 8.3 when it is 1 to 8 legal characters, or those, a dot and 1 to 3 more; small letters
// count as the capitals they become. Every other name, and every name that may not be its own
// alias, gets stem~number: the stem is cut so that stem, tilde and number fit 8 characters.
//
// 1. The capitals of every 8.3 name of the directory are reserved: they are the alias of that name
//    or of nothing. So an alias is never the spelling, in any case, of another item, and a name
//    that must not be its own alias does not get it back by way of a number.
// 2. Each number of digits has a counter for each stem cut for it (and extension). No two counters
//    can make the same alias, and a counter passes each reserved alias once: the cost is linear.
#include "capsule/platform/short_names.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "capsule/platform/ascii.h"

namespace capsule::platform {
namespace {

constexpr size_t kBaseLength = 8;
constexpr size_t kExtensionLength = 3;
constexpr size_t kMostDigits = kBaseLength - 1;  // the tilde takes one of the base's places

struct NameParts {
  std::string_view base;
  std::string_view extension;
};

// A dot at the start or at the end begins no extension.
NameParts Split(std::string_view name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) return {name, {}};
  return {name.substr(0, dot), name.substr(dot + 1)};
}

bool IsLegal(char upper) {
  constexpr std::string_view kMarks = "!#$%&'()-@^_{}~`";
  return (upper >= 'A' && upper <= 'Z') || (upper >= '0' && upper <= '9') ||
         static_cast<unsigned char>(upper) > 0x7F || kMarks.find(upper) != std::string_view::npos;
}

bool AllLegal(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return IsLegal(UpperAscii(c)); });
}

bool Is8Dot3(std::string_view name) {
  const NameParts parts = Split(name);
  return parts.base.size() <= kBaseLength && parts.extension.size() <= kExtensionLength &&
         AllLegal(parts.base) && AllLegal(parts.extension);
}

std::string MakeLegal(std::string_view text) {
  std::string legal = UpperAscii(text);
  for (char& c : legal) {
    if (!IsLegal(c)) c = '_';
  }
  return legal;
}

// Gives out numbered aliases, none of them reserved and none of them twice.
class Tails {
 public:
  // False when the alias is reserved already.
  bool Reserve(std::string alias) { return m_reserved.insert(std::move(alias)).second; }

  // Empty when the numbers have run out, after about ten million of them.
  std::string Next(std::string_view name) {
    const NameParts parts = Split(name);
    const std::string stem = MakeLegal(parts.base.substr(0, kBaseLength - 2));
    std::string end = MakeLegal(parts.extension.substr(0, kExtensionLength));
    if (!end.empty()) end.insert(0, 1, '.');
    uint32_t first = 1;
    for (size_t digits = 1; digits <= kMostDigits; ++digits, first *= 10) {
      std::string alias = NextOf(stem.substr(0, kMostDigits - digits) + "~", end, first);
      if (!alias.empty()) return alias;
    }
    return {};
  }

 private:
  std::string NextOf(const std::string& front, const std::string& end, uint32_t first) {
    std::string key = std::to_string(first);
    key.append(front).append(end);
    uint32_t& number = m_counters.try_emplace(std::move(key), first).first->second;
    while (number / 10 < first) {
      std::string alias = front;
      alias.append(std::to_string(number++)).append(end);
      if (!m_reserved.contains(alias)) return alias;
    }
    return {};
  }

  std::unordered_set<std::string> m_reserved;
  std::unordered_map<std::string, uint32_t> m_counters;
};

// Whether `name` is its own alias. Of names that differ only in case the first one asked for is.
bool TakesOwn(const std::string& name, AliasPolicy policy, Tails& tails) {
  if (!Is8Dot3(name)) return false;
  std::string upper = UpperAscii(name);
  const bool mayTakeIt = policy == AliasPolicy::Dos || upper == name;
  return tails.Reserve(std::move(upper)) && mayTakeIt;
}

}  // namespace

std::unordered_map<std::string, std::string> MakeAliases(std::vector<std::string> names,
                                                         AliasPolicy policy) {
  std::sort(names.begin(), names.end());  // capitals before small letters
  names.erase(std::unique(names.begin(), names.end()), names.end());

  std::unordered_map<std::string, std::string> aliases;
  aliases.reserve(names.size());
  Tails tails;
  std::vector<const std::string*> others;
  for (const std::string& name : names) {
    if (TakesOwn(name, policy, tails)) {
      aliases.emplace(name, UpperAscii(name));
    } else {
      others.push_back(&name);
    }
  }
  for (const std::string* name : others) {
    std::string alias = tails.Next(*name);
    if (!alias.empty()) aliases.emplace(*name, std::move(alias));
  }
  return aliases;
}

}  // namespace capsule::platform
