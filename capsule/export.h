// CAPSULE_API marks what the shared library exports; everything else stays hidden.
#pragma once

#define CAPSULE_API __attribute__((visibility("default")))
