// 8.3 aliases for the names of one directory, decided by the sorted names alone.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "capsule/platform/host_view.h"

namespace capsule::platform {

// Alias of each of `names`, unique in the directory ignoring case. The order of `names` does not
// matter. "." and ".." are not to be given. Linear in the number of names but for sorting.
std::unordered_map<std::string, std::string> MakeAliases(std::vector<std::string> names,
                                                         AliasPolicy policy);

}  // namespace capsule::platform
