# SPDX-License-Identifier: Apache-2.0
# ZELTA_REVISION: the project version and the git description, for the version line of the logs.
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
