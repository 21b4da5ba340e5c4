# The project's warning set, the same for every build. Warnings become
# errors only where the project checks itself (make test, CI): a user's
# build with another compiler version or build type must not fail on a
# warning we have not seen. Floating point is evaluated exactly as
# written: no contraction into fused multiply-adds, never fast-math.
option(ZOTDIGEST_WARNINGS_AS_ERRORS "Treat compiler warnings as errors (make test and CI turn this on)" OFF)
add_compile_options(-Wall -Wextra -ffp-contract=off)
if(ZOTDIGEST_WARNINGS_AS_ERRORS)
  add_compile_options(-Werror)
endif()
