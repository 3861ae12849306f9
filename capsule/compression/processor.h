// Which processor features the inner loops use.
#pragma once

namespace capsule::lzs {

// Whether shifts by a register without the flags, and the extraction of bits, are there (BMI,
// BMI2).
bool HasBmi2();

// For tests: whether the portable code runs where there is another for this processor.
void UsePortableCode(bool isPortable);

}  // namespace capsule::lzs
