# One warning set for every target of the project, per compiler; CI turns it
# into errors.
if(MSVC)
  # /permissive- holds cl to the standard, so that code it accepts builds
  # with GCC and Clang too.
  set(ZEP_WARNING_FLAGS /W4 /permissive-)
  if(ZEP_WARNINGS_AS_ERRORS)
    list(APPEND ZEP_WARNING_FLAGS /WX)
  endif()
else()
  set(ZEP_WARNING_FLAGS
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
    -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual
    -Wimplicit-fallthrough -Wformat=2)
  if(ZEP_WARNINGS_AS_ERRORS)
    list(APPEND ZEP_WARNING_FLAGS -Werror)
  endif()
endif()

function(zep_target_warnings target)
  target_compile_options(${target} PRIVATE ${ZEP_WARNING_FLAGS})
endfunction()
