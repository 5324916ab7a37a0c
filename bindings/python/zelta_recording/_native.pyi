# SPDX-License-Identifier: Apache-2.0
# The compiled module: cffi's view of zelta_recording.h, which has no types of Python's.
from typing import Any

ffi: Any
lib: Any
