#pragma once

// The bounded C functions (memset_s, snprintf_s, sprintf_s, sscanf_s) come from Debian's safeclib.
// memset_s, snprintf_s and sprintf_s are function-like macros there: call them unqualified.
// snprintf_s does not truncate: output that does not fit is an error and leaves a zeroed buffer.
// sscanf_s takes no size argument after %s/%c/%[; use field widths instead.
#include <safe_mem_lib.h>
#include <safe_str_lib.h>
