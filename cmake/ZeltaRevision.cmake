# SPDX-License-Identifier: Apache-2.0
# zelta_revision.h: the project version and the git description, for the version line of the logs. A
# header, and no option of the compiler: what doesn't include it isn't compiled anew by a commit.
set(ZELTA_REVISION "${PROJECT_VERSION}")
find_package(Git QUIET)
if(GIT_FOUND)
  execute_process(
    COMMAND "${GIT_EXECUTABLE}" describe --always --dirty --tags
    WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
    OUTPUT_VARIABLE description OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(description)
    string(APPEND ZELTA_REVISION " ${description}")
  endif()
endif()
file(WRITE "${PROJECT_BINARY_DIR}/generated/zelta_revision.h.new"
     "// SPDX-License-Identifier: Apache-2.0\n#pragma once\n#define ZELTA_REVISION \"${ZELTA_REVISION}\"\n")
configure_file("${PROJECT_BINARY_DIR}/generated/zelta_revision.h.new"
               "${PROJECT_BINARY_DIR}/generated/zelta_revision.h" COPYONLY)
