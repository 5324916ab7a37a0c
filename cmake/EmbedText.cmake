# SPDX-License-Identifier: Apache-2.0
# Writes the source TO, which has the text of the file FROM as `std::string_view NAMESPACE::NAME()`
# of HEADER. For `cmake -P`, at build time. Each line "/* include NAME */" of it stands for the file of
# that name in PARTS, a list of paths with "|" between them.
file(READ "${FROM}" text)
string(REPLACE "|" ";" parts "${PARTS}")
foreach(part IN LISTS parts)
  get_filename_component(name "${part}" NAME)
  file(READ "${part}" content)
  string(REPLACE "/* include ${name} */\n" "${content}" text "${text}")
endforeach()
foreach(wrong IN ITEMS "/* include " ")embedded\"")
  string(FIND "${text}" "${wrong}" at)
  if(NOT at EQUAL -1)
    message(FATAL_ERROR "${FROM}: ${wrong} is left in the text")
  endif()
endforeach()
file(
  WRITE "${TO}"
  "// Made of ${LABEL}.\n#include \"${HEADER}\"\n\nnamespace ${NAMESPACE} {\n\n"
  "std::string_view ${NAME}() {\n  return R\"embedded(" "${text}" ")embedded\";\n}\n\n}  // namespace ${NAMESPACE}\n")
