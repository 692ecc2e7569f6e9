# Warnings and sanitizers shared by every target of the project.

add_library(veskan_warnings INTERFACE)
target_compile_options(veskan_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow
                       -Wnon-virtual-dtor -Wold-style-cast -Wimplicit-fallthrough)
if(VESKAN_WARNINGS_AS_ERRORS)
  target_compile_options(veskan_warnings INTERFACE -Werror)
endif()

if(VESKAN_SANITIZE)
  string(REPLACE ";" "," veskan_sanitizers "${VESKAN_SANITIZE}")
  add_compile_options(-fsanitize=${veskan_sanitizers} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${veskan_sanitizers})
  message(STATUS "Veskan: building with -fsanitize=${veskan_sanitizers}")
endif()

# Coverage for libFuzzer in every object; the fuzz targets link the fuzzer's main themselves.
if(VESKAN_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
