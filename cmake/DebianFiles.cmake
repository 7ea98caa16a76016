# Run by CPack between staging the files and packing them: manual pages are compressed, as Debian wants them, without a
# time stamp.
file(GLOB_RECURSE pages "${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*")
foreach(page ${pages})
  execute_process(COMMAND gzip -9n "${page}" COMMAND_ERROR_IS_FATAL ANY)
endforeach()
