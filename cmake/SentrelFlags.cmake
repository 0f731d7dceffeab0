# One set of flags for every target of the project.
add_library(sentrel_flags INTERFACE)
target_compile_options(sentrel_flags INTERFACE -Wall -Wextra -Werror)
# A run is over in milliseconds and its time goes to starting up, not to
# loops: code compiled for size touches fewer pages and cache lines while
# it is cold. After the build type's -O2, so it wins, as it does over
# dpkg-buildflags' -O2 in the Debian build. BENCHMARKS.md has the figures.
target_compile_options(sentrel_flags INTERFACE -Os)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # clang 14 in C++20 flags RapidJSON's own iterator comparisons.
  target_compile_options(sentrel_flags INTERFACE -Wno-ambiguous-reversed-operator)
endif()
if(SENTREL_SANITIZE)
  set(_san -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_compile_options(sentrel_flags INTERFACE ${_san})
  target_link_options(sentrel_flags INTERFACE ${_san})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(sentrel_flags INTERFACE
      -fsanitize-ignorelist=${PROJECT_SOURCE_DIR}/cmake/ubsan-ignore.txt)
  endif()
endif()
if(SENTREL_FUZZ)
  # Coverage for libFuzzer in every library; the harnesses link the fuzzer itself.
  set(_fuzz -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
      -fsanitize-ignorelist=${PROJECT_SOURCE_DIR}/cmake/ubsan-ignore.txt)
  target_compile_options(sentrel_flags INTERFACE ${_fuzz})
  target_link_options(sentrel_flags INTERFACE -fsanitize=address,undefined)
endif()

# How the shipped programs and libraries are linked: the linker's own
# optimisation of the hash tables, only the libraries actually used, and
# packed relative relocations (glibc 2.36 and binutils 2.40 read and write
# them), all for a shorter start-up in the dynamic loader. Every symbol is
# bound at load (-z now): a run calls most of them anyway, and binding
# each on its first call goes through a trampoline that saves and restores
# the vector registers. It also leaves the whole GOT read-only.
add_library(sentrel_link INTERFACE)
target_link_options(sentrel_link INTERFACE -Wl,-O1 -Wl,--as-needed -Wl,-z,pack-relative-relocs -Wl,-z,now)
