# SPDX-License-Identifier: Apache-2.0
# zelta_options: how everything of ours is compiled. Never exported to users of the library.
add_library(zelta_options INTERFACE)
target_compile_features(zelta_options INTERFACE cxx_std_17)
target_compile_options(
  zelta_options
  INTERFACE -Wall -Wextra -Wshadow -Wconversion
            # Logs name sources by their path in the project, wherever it was built.
            "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")
# What a bug in a parser may do: the stack is guarded, checked copies stop at the end of their
# buffer, and nothing that is written to is executed or steers a call. tests/hardening looks.
target_compile_options(zelta_options INTERFACE -fstack-protector-strong -fstack-clash-protection)
target_link_options(zelta_options INTERFACE "LINKER:-z,relro,-z,now,-z,noexecstack")
if(NOT ZELTA_SANITIZE)
  # It needs the optimiser, and the sanitizers check more.
  target_compile_options(
    zelta_options INTERFACE "$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
endif()
if(ZELTA_WARNINGS_AS_ERRORS)
  target_compile_options(zelta_options INTERFACE -Werror)
endif()
if(ZELTA_SANITIZE)
  target_compile_options(zelta_options INTERFACE "-fsanitize=${ZELTA_SANITIZE}"
                                                 -fno-omit-frame-pointer)
  if(ZELTA_SANITIZE MATCHES undefined)
    target_compile_options(zelta_options INTERFACE -fno-sanitize-recover=undefined)
  endif()
  target_link_options(zelta_options INTERFACE "-fsanitize=${ZELTA_SANITIZE}")
endif()
target_include_directories(
  zelta_options
  INTERFACE "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>"
            "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>"
            "$<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/generated>")
target_compile_definitions(
  zelta_options INTERFACE "ZELTA_LIBEXEC_FROM_LIB=\"${ZELTA_LIBEXEC_FROM_LIB}\"")
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
