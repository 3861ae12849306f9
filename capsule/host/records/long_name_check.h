// Tells whether the long name of a record group can be believed.
#pragma once

#include <string>

#include "capsule/partition/entry_group.h"

namespace capsule::host {

// What is wrong with the long name of a group that is whole, or nothing.
std::string JudgeLongName(const EntryGroup& group);

// What the entry is called: a long name that cannot be believed names nothing.
std::string NameOf(const EntryGroup& group);

}  // namespace capsule::host
