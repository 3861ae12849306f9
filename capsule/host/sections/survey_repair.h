// Puts right what single damaged records have made of the tree of a section.
#pragma once

#include <vector>

#include "capsule/host/sections/survey.h"

namespace capsule::host {

// `items`: those of one section of FAT-style records, in file order, gaps included. Kinds are put
// right where their neighbours tell: a folder is followed by its `.` and `..`, a zero entry is
// zero, names have no control characters. Folders whose own records are lost get a placeholder.
// Every change is told to `visitor.onDamage`.
std::vector<SurveyItem> MendSection(std::vector<SurveyItem> items, const SurveyVisitor& visitor);

// Whether an entry is more likely what is left of a zero entry than of another.
bool IsMostlyZero(const _ShortDirEntry& entry);

bool IsAllZero(const _ShortDirEntry& entry);

// Whether a short name has what writers do not put there: they pad with blanks and use no control
// characters.
bool HasBadName(const SectionItem& item);

// A folder named after the place where its records are missing.
SurveyItem LostFolder(uint64_t offset, const std::string& name = {});

}  // namespace capsule::host
