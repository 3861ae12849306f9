# Compiler settings that every target of the project shares.
add_library(capsule_options INTERFACE)
target_compile_options(capsule_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wold-style-cast -Wnon-virtual-dtor -Wundef
  $<$<BOOL:${CAPSULE_WERROR}>:-Werror>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # Level 2 takes a pointer difference that the optimiser moved behind realloc for a use.
  # g++ 12 makes up overlapping copies in a string put together from a literal and a string.
  target_compile_options(capsule_options INTERFACE -Wuse-after-free=1 -Wno-restrict)
endif()
target_include_directories(capsule_options INTERFACE ${PROJECT_SOURCE_DIR})
if(CMAKE_CXX_COMPILER_LAUNCHER MATCHES "ccache")
  # It does not keep what is compiled with one.
  set(CMAKE_DISABLE_PRECOMPILE_HEADERS ON)
endif()
if(CAPSULE_SANITIZE)
  target_compile_options(capsule_options INTERFACE
    -fsanitize=${CAPSULE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    # Clang's check does not know the error categories of libstdc++.
    $<$<CXX_COMPILER_ID:Clang>:-fno-sanitize=vptr>)
  target_link_options(capsule_options INTERFACE -fsanitize=${CAPSULE_SANITIZE})
endif()
