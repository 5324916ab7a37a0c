# SPDX-License-Identifier: Apache-2.0
# Writes the source TO, which has the text of the file FROM as `std::string_view NAMESPACE::NAME()`
# of HEADER. For `cmake -P`, at build time.
file(READ "${FROM}" text)
file(
  WRITE "${TO}"
  "// Made of ${LABEL}.\n#include \"${HEADER}\"\n\nnamespace ${NAMESPACE} {\n\n"
  "std::string_view ${NAME}() {\n  return R\"embedded(" "${text}" ")embedded\";\n}\n\n}  // namespace ${NAMESPACE}\n")
