# SPDX-License-Identifier: Apache-2.0
"""Makes a wheel for an installed library, whose header, place and version pkg-config knows."""

import subprocess

import setuptools

setuptools.setup(
    version=subprocess.run(["pkg-config", "--modversion", "zelta_recording"], check=True,
                           capture_output=True, text=True).stdout.strip(),
    cffi_modules=["build_native.py:native_module"],
    # For this Python and all later ones, as cffi keeps to the stable ABI.
    options={"bdist_wheel": {"py_limited_api": "cp311"}},
)
