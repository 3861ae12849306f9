#include "capsule/runtime/debug_tracer.h"

int main(int count, char**) {
  if (count > 1) return 0;  // a program that never traces
  capsule::MainTracer().Trace("main %d\n", 1);
  capsule::IndexTracer().Trace("index %d\n", 2);
}
