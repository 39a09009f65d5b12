# SPDX-License-Identifier: MIT
__version__ = "0.1.0"  # the library's version, as CMakeLists.txt gives it
