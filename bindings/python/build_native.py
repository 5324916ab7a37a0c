# SPDX-License-Identifier: Apache-2.0
"""The extension module zelta_recording._native: what cffi compiles against zelta_recording.h.

Its declarations are those of the header itself, so that nothing is written twice; the compiler then
checks each of them against the same header.

    python3 build_native.py HEADER OUTPUT.c    writes the module's source, for CMake

setup.py calls native_module(), with the header that pkg-config names."""

import pathlib
import re
import subprocess
import sys

import cffi

MODULE = "zelta_recording._native"

# One call in place of two for what is done with each event. The code belongs to the thread, as
# several may take events at a time.
HELPERS = """
static const zelta_event* zelta_python_take(zelta_recording* recording);
static int zelta_python_code(void);
"""
SOURCE = """
#include <zelta_recording.h>

static _Thread_local int taken_code;

/* The oldest event, which is lent, or null and zelta_python_code(); never waits. */
static const zelta_event* zelta_python_take(zelta_recording* recording) {
  const zelta_event* event = NULL;
  taken_code = zelta_next_event(recording, 0, &event);
  return event;
}

static int zelta_python_code(void) {
  return taken_code;
}
"""


def declarations(header: str) -> str:
    """The header without what only a preprocessor understands."""
    header = re.sub(r"#ifdef __cplusplus\n.*?#endif[^\n]*\n", "", header, flags=re.DOTALL)
    header = re.sub(r"^#(?:[^\n]*\\\n)*[^\n]*\n", "", header, flags=re.MULTILINE)
    return header.replace("ZELTA_C_API ", "")


def make_ffi(header: pathlib.Path) -> cffi.FFI:
    ffi = cffi.FFI()
    ffi.cdef(declarations(header.read_text(encoding="utf-8")) + HELPERS)
    return ffi


def native_module() -> cffi.FFI:
    """The module by what pkg-config knows of the library."""
    def ask(question: str) -> str:
        return subprocess.run(["pkg-config", question, "zelta_recording"], check=True,
                              capture_output=True, text=True).stdout.strip()

    folder = pathlib.Path(ask("--variable=includedir"))
    ffi = make_ffi(folder / "zelta_recording.h")
    ffi.set_source(MODULE, SOURCE, include_dirs=[str(folder)],
                   library_dirs=[ask("--variable=libdir")], libraries=["zelta_recording"])
    return ffi


def main() -> None:
    header, output = map(pathlib.Path, sys.argv[1:])
    ffi = make_ffi(header)
    ffi.set_source(MODULE, SOURCE, compiler_verbose=0)
    # One that is as it was would be left alone, and be older than the header for ever.
    output.unlink(missing_ok=True)
    ffi.emit_c_code(str(output))


if __name__ == "__main__":
    main()
