# Feature probes and build facts, written into a generated header that only the library's
# sources include.

include(CheckSymbolExists)

set(CMAKE_REQUIRED_DEFINITIONS -D_GNU_SOURCE)
check_symbol_exists(strerrordesc_np "string.h" VESKAN_HAVE_STRERRORDESC_NP)
unset(CMAKE_REQUIRED_DEFINITIONS)

set(VESKAN_GENERATED_DIR "${PROJECT_BINARY_DIR}/generated")
configure_file("${PROJECT_SOURCE_DIR}/cmake/VeskanBuildConfig.h.in"
               "${VESKAN_GENERATED_DIR}/VeskanBuildConfig.h")
