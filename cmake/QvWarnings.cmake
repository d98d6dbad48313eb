# Warnings for our own targets only; third-party headers come in as SYSTEM.
add_library(qv_warnings INTERFACE)
target_compile_options(qv_warnings INTERFACE
  -Wall -Wextra $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local> -Wnon-virtual-dtor -Wno-missing-field-initializers
  $<$<BOOL:${QV_WERROR}>:-Werror>)
