# Warnings for the project's own targets.
function(velvox_target_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  # GCC 12 reports atomic reference-count updates on inlined objects as
  # overflows, and std::string concatenation at -O3 as overlapping copies:
  # known false positives of its object-size tracking.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wno-stringop-overflow -Wno-restrict)
  endif()
  if(VELVOX_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# One library per folder under Sources/: velvox::<name>, headers installed
# under include/velvox/<name>.
function(velvox_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;HEADERS;PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${name} ${ARG_SOURCES} ${ARG_HEADERS})
  add_library(velvox::${name} ALIAS ${name})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/Sources>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/velvox/${name}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/velvox>)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  velvox_target_warnings(${name})
  install(TARGETS ${name} EXPORT VelvoxKitTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(FILES ${ARG_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velvox/${name})
endfunction()
