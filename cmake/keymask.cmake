# KeyMask of the encrypted-file format: a deployment setting shared with the agent vendor and the
# decrypting side. 64 hex digits (32 bytes) whose last byte is 00. The default is for testing only.
set(KWINDEL_KEY_MASK "6b77696e64656c2d746573742d6b65792d6d61736b2d6e6f742d666f722d7500"
    CACHE STRING "32-byte key mask of the encrypted-file format, 64 hex digits ending in 00")
if(NOT KWINDEL_KEY_MASK MATCHES "^[0-9A-Fa-f]+$")
  message(FATAL_ERROR "KWINDEL_KEY_MASK must be 64 hexadecimal digits; got '${KWINDEL_KEY_MASK}'")
endif()
string(LENGTH "${KWINDEL_KEY_MASK}" _kw_len)
if(NOT _kw_len EQUAL 64)
  message(FATAL_ERROR "KWINDEL_KEY_MASK must be 64 hexadecimal digits (32 bytes); got ${_kw_len} digits")
endif()
string(SUBSTRING "${KWINDEL_KEY_MASK}" 62 2 _kw_last)
if(NOT _kw_last STREQUAL "00")
  message(FATAL_ERROR "KWINDEL_KEY_MASK must end in the byte 00 (its last two hex digits are '${_kw_last}')")
endif()
