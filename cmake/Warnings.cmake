# qvdlm_warnings(target): the project's warning level; errors when QVDLM_WARNINGS_AS_ERRORS is on.
function(qvdlm_warnings target)
  if(MSVC)
    target_compile_options(${target} PRIVATE /W4 /permissive- $<$<BOOL:${QVDLM_WARNINGS_AS_ERRORS}>:/WX>)
  else()
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow=local
                           $<$<BOOL:${QVDLM_WARNINGS_AS_ERRORS}>:-Werror>)
  endif()
endfunction()

# Definitions every Win32 translation unit of the project shares.
function(qvdlm_win32_defs target)
  target_compile_definitions(${target} PRIVATE UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0601)
endfunction()
