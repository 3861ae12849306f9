// 8.3 aliases for the names of one directory, decided by the sorted names alone.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "capsule/platform/host_view.h"

namespace capsule::platform {

// An alias is 1 to 8 characters, or those, a dot and 1 to 3 more, out of A-Z, 0-9,
// !#$%&'()-@^_{}~` and the bytes above 0x7F. A name that is not one itself, as `policy` sees it,
// gets one with a number: its first characters in capitals, "_" for each that is not legal, "~1" to
// "~9" behind six of them, "~10" to "~99" behind five, and so on, and the start of its extension.
//
//   {"README", "readme.txt", "page.html", ".profile", "a long name", "a long night"} gives with Dos
//   {"README", "README.TXT", "PAGE~1.HTM", "_PROFI~1", "A_LONG~1", "A_LONG~2"}, and with Exact
//   "README~1.TXT" for the second.
//
// Alias of each of `names`. No two are equal, and none is the spelling of another of the names in
// any case. The order of `names` does not matter. "." and ".." are not to be given. A name is left
// out of the result when all numbers for its extension are used up, which takes some ten million
// names. Linear in the number of names but for sorting.
std::unordered_map<std::string, std::string> MakeAliases(std::vector<std::string> names,
                                                         AliasPolicy policy);

}  // namespace capsule::platform
