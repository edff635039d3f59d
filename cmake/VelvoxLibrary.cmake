# Warnings for the project's own targets.
function(velvox_target_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  # GCC 12 reports atomic reference-count updates on inlined objects as
  # overflows, and std::string concatenation at -O3 as overlapping copies:
  # known false positives of its object-size tracking.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wno-stringop-overflow -Wno-restrict)
    # The sanitizers' instrumentation makes it see std::regex's and
    # std::function's members as maybe uninitialized, which they are not.
    if(VELVOX_SANITIZE)
      target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized)
    endif()
  endif()
  if(VELVOX_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# One library per folder under Sources/: the target velvox::<name>, the file
# libvelvox-<file>.so.<major> (or .a), headers installed under
# include/velvox/<name>/ and included as <name/Header.h> from one include root.
# EXPORT_SET: the CMake package's export set (VelvoxKitTargets, the framework;
# a component has its own, VelvoxKit<Component>Targets).
function(velvox_add_library name)
  cmake_parse_arguments(ARG "" "FILE_NAME;EXPORT_SET" "SOURCES;HEADERS;PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  if(NOT ARG_EXPORT_SET)
    set(ARG_EXPORT_SET VelvoxKitTargets)
  endif()
  add_library(${name} ${ARG_SOURCES} ${ARG_HEADERS})
  add_library(velvox::${name} ALIAS ${name})
  if(NOT ARG_FILE_NAME)
    string(TOLOWER ${name} ARG_FILE_NAME)
  endif()
  set_target_properties(${name} PROPERTIES
    OUTPUT_NAME velvox-${ARG_FILE_NAME}
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    EXPORT_NAME ${name})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/Sources>
    $<BUILD_INTERFACE:${VELVOX_GENERATED_INCLUDE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/velvox>)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  velvox_target_warnings(${name})
  install(TARGETS ${name} EXPORT ${ARG_EXPORT_SET}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${ARG_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velvox/${name})
endfunction()

# A program of the package: built into bin/ of the build tree, installed and
# exported as velvox::<name>, finding its libraries relative to itself.
function(velvox_add_program name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  add_executable(velvox::${name} ALIAS ${name})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS})
  velvox_target_warnings(${name})
  install(TARGETS ${name} EXPORT VelvoxKitTargets RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endfunction()
