// Decides in which folder a section goes on behind records that are lost.
#pragma once

#include <vector>

#include "capsule/host/sections/survey.h"

namespace capsule::host {

// `items`: those of one section of FAT-style records, in file order. Behind each that hides lost
// records come zero entries for the folders that end there, and made-up folders for those that
// begin, as what follows makes it likeliest. `visitor.onDamage` is told of folders that are made
// up, and where it is not decided which folder is meant.
std::vector<SurveyItem> PlaceBehindLosses(std::vector<SurveyItem> items,
                                          const SurveyVisitor& visitor);

}  // namespace capsule::host
