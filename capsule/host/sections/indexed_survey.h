// A survey that is led by a checked index.
#pragma once

#include <string>

#include "capsule/host/index/index_check.h"
#include "capsule/host/sections/survey.h"

namespace capsule::host {

// Goes by the records of a checked index, which say what lies where. `index` kept its records.
void SurveyByIndex(const ImageFile& image, const IndexContents& index,
                   const SurveyVisitor& visitor);

}  // namespace capsule::host
