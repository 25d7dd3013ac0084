# shellcheck shell=bash
# Functions of the transcript of common mistakes.

# calls PYTHON: calls the library z from Python, and shows the errors in its log.
# shellcheck disable=SC2154 # transcript.sh sets libraries
calls() {
    python3 -c "from ctypes import *; z = CDLL('$libraries/libzol.so.0'); z.kiv_message_new.restype = c_void_p; $1" \
        2> /dev/null | texts ERRR | grep -v 'ASSERT FAILED'
}
export -f calls
