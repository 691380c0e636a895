# What is handed out: a module without symbols, and beside it the file that a debugger takes them
# from. It happens at the build, so that the file that is tested is the one that ships. The date that
# is kept is that in the module's header, none, without which two builds would differ.
function(split_symbols target)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug --preserve-dates $<TARGET_FILE:${target}>
      $<TARGET_FILE:${target}>.debug
    COMMAND ${CMAKE_OBJCOPY} --strip-all --preserve-dates --add-gnu-debuglink=$<TARGET_FILE:${target}>.debug
      $<TARGET_FILE:${target}>
    VERBATIM)
endfunction()
