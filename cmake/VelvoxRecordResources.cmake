# Run by the install step of a static build: writes the installed prefix's
# resource folder into the installed libvelvox-platform.a, over the build
# tree's (Sources/Platform/RecordedResources.cpp), so that programs linked from
# the prefix find the resources wherever they live. The record is the folder
# the package is installed for (without DESTDIR, which only stages it).
#
# Set by the caller: VELVOX_RECORD_ARCHIVE (relative to the prefix),
# VELVOX_RECORD_MEMBER, VELVOX_RECORD_RESOURCES (relative to the prefix),
# VELVOX_RECORD_AR, VELVOX_RECORD_OBJCOPY.
set(record_size 4096)
get_filename_component(velvox_prefix "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)
set(archive "$ENV{DESTDIR}${velvox_prefix}/${VELVOX_RECORD_ARCHIVE}")
set(folder "${velvox_prefix}/${VELVOX_RECORD_RESOURCES}")
string(LENGTH "${folder}" folder_length)

function(velvox_record_failed reason)
  message(WARNING "VelvoxKit: ${reason}; statically linked programs outside ${velvox_prefix} "
    "name the resource folder themselves (Bundle::setResourcePath or $VELVOX_RESOURCES)")
endfunction()

if(folder MATCHES "\n" OR NOT folder_length LESS record_size)
  velvox_record_failed("the resource folder's path cannot be recorded in the library")
  return()
endif()
if(NOT VELVOX_RECORD_OBJCOPY OR NOT VELVOX_RECORD_AR)
  velvox_record_failed("no objcopy or ar to record the resource folder in the library")
  return()
endif()

# The record is the path, then line feeds up to its fixed size (the reader
# stops at the first one).
math(EXPR padding "${record_size} - ${folder_length}")
string(REPEAT "\n" ${padding} filler)
string(RANDOM LENGTH 12 token)
get_filename_component(archive_folder "${archive}" DIRECTORY)
set(work "${archive_folder}/.velvox-record-${token}")
file(MAKE_DIRECTORY "${work}")
file(WRITE "${work}/record" "${folder}${filler}")
execute_process(
  COMMAND "${VELVOX_RECORD_AR}" x "${archive}" "${VELVOX_RECORD_MEMBER}"
  WORKING_DIRECTORY "${work}" RESULT_VARIABLE extracted ERROR_VARIABLE problem)
if(extracted EQUAL 0)
  execute_process(
    COMMAND "${VELVOX_RECORD_OBJCOPY}" --update-section "velvox_resources=${work}/record" "${VELVOX_RECORD_MEMBER}"
    WORKING_DIRECTORY "${work}" RESULT_VARIABLE updated ERROR_VARIABLE problem)
endif()
if(extracted EQUAL 0 AND updated EQUAL 0)
  execute_process(
    COMMAND "${VELVOX_RECORD_AR}" rs "${archive}" "${VELVOX_RECORD_MEMBER}"
    WORKING_DIRECTORY "${work}" RESULT_VARIABLE replaced ERROR_VARIABLE problem)
endif()
file(REMOVE_RECURSE "${work}")
if(NOT replaced EQUAL 0)
  velvox_record_failed("cannot record the resource folder in ${archive}: ${problem}")
endif()
