# `cmake --build BUILD --target abi-baseline` records this build's interface
# as the baseline abi/qor.abi (the same as scripts/abi-baseline BUILD); the
# packaging test packaging.abi_baseline compares every build against it.
if(TARGET qor_msg)
  add_custom_target(abi-baseline
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/scripts/abi-baseline
            ${CMAKE_CURRENT_BINARY_DIR}
    WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}
    USES_TERMINAL VERBATIM)
endif()
