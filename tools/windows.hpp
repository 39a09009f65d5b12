// SPDX-License-Identifier: MIT
// The Windows API for the command-line program, without the macros that
// clash with the standard library (min, max) and without the rarely used
// parts. Empty elsewhere.
#pragma once

#if defined(_WIN32)
#  ifndef NOMINMAX
#    define NOMINMAX
#  endif
#  ifndef WIN32_LEAN_AND_MEAN
#    define WIN32_LEAN_AND_MEAN
#  endif
#  include <windows.h>
#endif
