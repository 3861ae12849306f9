#include "capsule/platform/short_names.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "capsule/platform/ascii.h"

namespace capsule::platform {
namespace {

using Names = std::vector<std::string>;

bool IsLegalText(const std::string& text, size_t most) {
  return !text.empty() && text.size() <= most && std::all_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) > 0x7F ||
           std::string("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789!#$%&'()-@^_{}~`").find(c) !=
               std::string::npos;
  });
}

bool IsLegalAlias(const std::string& alias) {
  const size_t dot = alias.find('.');
  return IsLegalText(alias.substr(0, dot), 8) &&
         (dot == std::string::npos || IsLegalText(alias.substr(dot + 1), 3));
}

// What must hold for any directory: an alias for each name, legal, unique, none the spelling of
// another item; a name comes back exactly or, with Dos, ignoring case.
void ExpectSound(const Names& names, AliasPolicy policy) {
  const auto aliases = MakeAliases(names, policy);
  std::set<std::string> used;
  std::set<std::string> spellings;
  for (const std::string& name : names) spellings.insert(UpperAscii(name));
  for (const auto& [name, alias] : aliases) {
    ASSERT_TRUE(IsLegalAlias(alias)) << name << " -> " << alias;
    ASSERT_TRUE(used.insert(alias).second) << name << " -> " << alias;
    if (!EqualIgnoringCase(name, alias)) {
      ASSERT_FALSE(spellings.contains(alias)) << name << " -> " << alias;
    } else if (policy == AliasPolicy::Exact) {
      ASSERT_EQ(name, alias) << "without a long name the spelling would be lost";
    }
  }
  ASSERT_EQ(aliases.size(), std::set<std::string>(names.begin(), names.end()).size());
}

std::string AliasOf(const std::string& name, const Names& others = {},
                    AliasPolicy policy = AliasPolicy::Dos) {
  Names names = others;
  names.push_back(name);
  return MakeAliases(names, policy).at(name);
}

TEST(ShortNamesTest, GivesTheAliasesOfFatDrivers) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"README", "README"},
      {"readme.txt", "README.TXT"},
      {"!#$%&'()", "!#$%&'()"},
      {"-@^_{}~`.~", "-@^_{}~`.~"},
      {"Makefile", "MAKEFILE"},
      {"abcdefghi", "ABCDEF~1"},
      {"page.html", "PAGE~1.HTM"},
      {".gitignore", "_GITIG~1"},
      {".a.b", "_A~1.B"},
      {"a..b", "A_~1.B"},
      {"a.", "A_~1"},
      {"..b", "_~1.B"},
      {"...", "___~1"},
      {"x+y[1].tar.gz", "X_Y_1_~1.GZ"},
      {"a.b c", "A~1.B_C"},
      {" ", "_~1"},
      {"a\x7F", "A_~1"},
      {"a\nb", "A_B~1"},
      {"caf\xC3\xA9", "CAF\xC3\xA9"},
      {"caf\xE9 \xDC", "CAF\xE9_\xDC~1"},
      {std::string(255, 'x'), "XXXXXX~1"},
      {std::string(250, '.') + "a", "______~1.A"},
  };
  for (const auto& [name, alias] : cases) {
    EXPECT_EQ(AliasOf(name), alias);
    ExpectSound({name}, AliasPolicy::Exact);
  }
}

TEST(ShortNamesTest, NamesThatAreTheirOwnAliasComeFirstAndWithExactAreCapitals) {
  EXPECT_EQ(AliasOf("abcdefghi", {"ABCDEF~1", "abcdef~2", "ABCDEF~3.TXT"}), "ABCDEF~3");
  EXPECT_EQ(AliasOf("README", {"readme", "Readme"}), "README");
  EXPECT_EQ(AliasOf("Readme", {"readme", "README"}), "README~1");
  EXPECT_EQ(AliasOf("readme", {"Readme", "README"}), "README~2");
  EXPECT_EQ(AliasOf("abcdefghi.txt", {"abcdefghi.doc"}), "ABCDEF~1.TXT") << "extensions differ";

  EXPECT_EQ(AliasOf("README.TXT", {}, AliasPolicy::Exact), "README.TXT");
  EXPECT_EQ(AliasOf("readme.txt", {}, AliasPolicy::Exact), "README~1.TXT");
  // Its first numbered alias would be its own spelling in capitals.
  EXPECT_EQ(AliasOf("readme~1.txt", {}, AliasPolicy::Exact), "README~2.TXT");
}

TEST(ShortNamesTest, NumbersGrowAndStemsShrink) {
  Names names;
  for (int i = 0; i < 2000; ++i) names.push_back("stemname" + std::to_string(10000 + i));
  const auto aliases = MakeAliases(names, AliasPolicy::Dos);
  EXPECT_EQ(aliases.at(names[8]), "STEMNA~9");
  EXPECT_EQ(aliases.at(names[9]), "STEMN~10");
  EXPECT_EQ(aliases.at(names[99]), "STEM~100");
  EXPECT_EQ(aliases.at(names[1999]), "STE~2000");
  // Two stems that have become one take turns with the numbers.
  names.clear();
  for (int i = 0; i < 12; ++i) {
    names.push_back("stemnA long " + std::to_string(10 + i));
    names.push_back("stemnB long " + std::to_string(10 + i));
  }
  const auto shared = MakeAliases(names, AliasPolicy::Dos);
  EXPECT_EQ(shared.at("stemnA long 21"), "STEMN~12");
  EXPECT_EQ(shared.at("stemnB long 19"), "STEMN~13");
}

// Names made of few characters, so that they collide in every way there is.
Names CollidingNames(std::mt19937& random) {
  const std::vector<std::string> pieces = {"a",        "A", "b",  "~",    "1",      "2",
                                           "10",       ".", " ",  "+",    "abcdef", "ABCDE",
                                           "\xC3\xA9", "_", "~1", ".txt", ".TXT"};
  std::uniform_int_distribution<size_t> piece(0, pieces.size() - 1);
  std::uniform_int_distribution<int> length(1, 5);
  Names names;
  for (int i = 0; i < 300; ++i) {
    std::string name;
    for (int n = length(random); n > 0; --n) name += pieces[piece(random)];
    if (name != "." && name != "..") names.push_back(name);
  }
  return names;
}

TEST(ShortNamesTest, AnyDirectoryGetsSoundAliasesWhateverItsOrder) {
  std::mt19937 random(20);
  for (int round = 0; round < 200; ++round) {
    Names names = CollidingNames(random);
    for (const AliasPolicy policy : {AliasPolicy::Dos, AliasPolicy::Exact}) {
      ASSERT_NO_FATAL_FAILURE(ExpectSound(names, policy));
      const auto aliases = MakeAliases(names, policy);
      std::shuffle(names.begin(), names.end(), random);
      ASSERT_EQ(MakeAliases(names, policy), aliases);
    }
  }
}

// Probing every number for every name would take longer than a test is given.
TEST(ShortNamesTest, VeryManyNamesOfOneStemCostLinearTime) {
  Names names;
  for (int i = 0; i < 150000; ++i) names.push_back("sharedstem number " + std::to_string(i));
  // Names that look like aliases stand in the way of every number.
  for (int i = 1; i < 20000; ++i) {
    const std::string number = std::to_string(i);
    names.push_back(std::string("SHARED").substr(0, 7 - number.size()) + "~" + number);
  }
  ASSERT_NO_FATAL_FAILURE(ExpectSound(names, AliasPolicy::Exact));
}

}  // namespace
}  // namespace capsule::platform
