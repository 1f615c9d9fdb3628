# The time that a build writes into its files, so that the same sources give the same bytes. Unless the
# caller has set it: that of the last commit, or of Debian's changelog where git knows none. A
# repository above the sources is somebody else's.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  get_filename_component(sources ${CMAKE_CURRENT_LIST_DIR} DIRECTORY)
  set(time "")
  if(EXISTS ${sources}/.git)
    execute_process(COMMAND git -C ${sources} log -1 --format=%ct
      OUTPUT_VARIABLE time OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  endif()
  if(time STREQUAL "")
    execute_process(COMMAND dpkg-parsechangelog -l ${sources}/packaging/debian/changelog -S Timestamp
      OUTPUT_VARIABLE time OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  endif()
  if(NOT time STREQUAL "")
    set(ENV{SOURCE_DATE_EPOCH} ${time})
  endif()
endif()
