# Splits a module into the stripped module that ships and a file with its debug symbols. The build
# does this, so that the tests run the modules that ship. --preserve-dates keeps the empty timestamp
# in the module's header, without which two builds would differ.
function(split_symbols target)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug --preserve-dates $<TARGET_FILE:${target}>
      $<TARGET_FILE:${target}>.debug
    COMMAND ${CMAKE_OBJCOPY} --strip-all --preserve-dates --add-gnu-debuglink=$<TARGET_FILE:${target}>.debug
      $<TARGET_FILE:${target}>
    VERBATIM)
endfunction()
