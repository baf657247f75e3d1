# One warning set for every target of the project; CI turns it into errors.
set(ZEP_WARNING_FLAGS
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
  -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual
  -Wimplicit-fallthrough -Wformat=2)
if(ZEP_WARNINGS_AS_ERRORS)
  list(APPEND ZEP_WARNING_FLAGS -Werror)
endif()

function(zep_target_warnings target)
  target_compile_options(${target} PRIVATE ${ZEP_WARNING_FLAGS})
endfunction()
