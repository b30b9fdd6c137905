# Flags shared by every target of the project: link velmarin_build_flags to get them.
add_library(velmarin_build_flags INTERFACE)
target_compile_options(velmarin_build_flags INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wundef -Wcast-qual
  -Wmissing-declarations -Wvla -Werror
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)

if(VELMARIN_SANITIZE)
  target_compile_options(velmarin_build_flags INTERFACE
    -fsanitize=${VELMARIN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    # GCC sees uninitialised members in its own library where sanitizers instrument it.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(velmarin_build_flags INTERFACE -fsanitize=${VELMARIN_SANITIZE})
endif()
