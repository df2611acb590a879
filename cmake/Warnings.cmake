# All warnings are errors, with both compilers; floating point is the same with both.
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wformat=2 -Werror)
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>)
  # Frames and conversions are the same on every processor, also where multiplying and adding is one instruction.
  add_compile_options(-ffp-contract=off)
endif()
