// What the class interface makes of memory that cannot be had: the result that every other failure
// has, too.
#pragma once

#include <new>

namespace capsule::platform {

// What `operation` gives; `failure` when it finds no memory.
template <typename Operation, typename Result>
Result OrOutOfMemory(Result failure, Operation operation) {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    return failure;
  }
}

}  // namespace capsule::platform
