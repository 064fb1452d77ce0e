# cul_set_source_date(<folder>): where the environment gives no SOURCE_DATE_EPOCH, sets it to the
# time of the commit that lies unchanged in a folder, so that two builds of one commit are the same
# bytes. It stays unset when the files are not those of a commit: each build has its own time then.
function(cul_set_source_date folder)
  if(DEFINED ENV{SOURCE_DATE_EPOCH})
    return()
  endif()
  find_program(GIT git)
  if(NOT GIT OR NOT EXISTS ${folder}/.git)
    return()
  endif()
  execute_process(COMMAND ${GIT} -C ${folder} status --porcelain
    OUTPUT_VARIABLE changes RESULT_VARIABLE failed ERROR_QUIET)
  if(failed OR NOT changes STREQUAL "")
    return()
  endif()
  execute_process(COMMAND ${GIT} -C ${folder} log -1 --format=%ct
    OUTPUT_VARIABLE time OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE failed ERROR_QUIET)
  if(NOT failed)
    set(ENV{SOURCE_DATE_EPOCH} ${time})
  endif()
endfunction()
