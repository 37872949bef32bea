# How every target of the project is built.

add_library(corvane_options INTERFACE)
target_include_directories(corvane_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(corvane_options INTERFACE -Wall -Wextra -Wconversion -Wshadow
                       $<$<BOOL:${CORVANE_WERROR}>:-Werror>)
if(CORVANE_SANITIZE)
  target_compile_options(corvane_options INTERFACE -fsanitize=${CORVANE_SANITIZE} -fno-omit-frame-pointer
                         -fno-sanitize-recover=all)
  target_compile_definitions(corvane_options INTERFACE CORVANE_SANITIZE="${CORVANE_SANITIZE}")
  target_link_options(corvane_options INTERFACE -fsanitize=${CORVANE_SANITIZE})
  if(CORVANE_SANITIZE MATCHES undefined)
    # This check opens a pipe to look at memory, and takes its failure for ours where descriptors have run out.
    target_compile_options(corvane_options INTERFACE -fno-sanitize=vptr)
  endif()
  if(CORVANE_SANITIZE STREQUAL thread)
    # Asio's fences stand beside mutexes, which the sanitizer does see.
    target_compile_options(corvane_options INTERFACE -Wno-tsan)
  endif()
endif()

# Hardening, for builds that are used. Sanitizers find more themselves, and do not go together with all of it.
if(NOT CORVANE_SANITIZE)
  include(CheckCXXCompilerFlag)
  include(CheckLinkerFlag)
  foreach(flag -fstack-protector-strong -fstack-clash-protection)
    string(MAKE_C_IDENTIFIER "CORVANE_HAS${flag}" known)
    check_cxx_compiler_flag(${flag} ${known})
    if(${known})
      target_compile_options(corvane_options INTERFACE ${flag})
    endif()
  endforeach()
  # glibc warns where nothing is optimised; some compilers define it on their own.
  target_compile_options(corvane_options INTERFACE
                         $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>)
  # Lazy binding saves all registers on the stack at the first call of each function, and with them pieces of the
  # private keys that were just copied.
  foreach(flag -Wl,-z,relro -Wl,-z,now)
    string(MAKE_C_IDENTIFIER "CORVANE_HAS${flag}" known)
    check_linker_flag(CXX ${flag} ${known})
    if(${known})
      target_link_options(corvane_options INTERFACE ${flag})
    endif()
  endforeach()
endif()

# corvane_library(NAME SOURCES file... USES library...)
#
# A static library of our own. What it uses is named in full, so that code which reaches past its neighbours
# fails to link as well as failing the include check.
function(corvane_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;USES")
  add_library(${name} STATIC ${arg_SOURCES})
  target_link_libraries(${name} PUBLIC corvane_options ${arg_USES})
endfunction()

# corvane_shared_library(NAME ABI number HEADER file EXPORTS version-script SOURCES file... USES library...)
#
# A shared library of our own for other programs, which need nothing but its header: it holds the libraries that it
# uses. Installed with the header, a pkg-config file made of NAME.pc.in, and a CMake package.
function(corvane_shared_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "ABI;HEADER;EXPORTS" "SOURCES;USES")
  set(exports ${CMAKE_CURRENT_SOURCE_DIR}/${arg_EXPORTS})
  add_library(${name} SHARED ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE corvane_options ${arg_USES})
  target_link_options(${name} PRIVATE -Wl,--version-script=${exports})
  # Sanitizers leave symbols for the program to define.
  if(NOT CORVANE_SANITIZE)
    target_link_options(${name} PRIVATE -Wl,-z,defs)
  endif()
  target_include_directories(${name} INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  set_target_properties(${name} PROPERTIES SOVERSION ${arg_ABI}
                        LINK_DEPENDS ${exports} PUBLIC_HEADER ${arg_HEADER} EXPORT_NAME ${name})
  configure_file(${name}.pc.in ${name}.pc @ONLY)

  set(package ${CMAKE_INSTALL_LIBDIR}/cmake/${name})
  include(CMakePackageConfigHelpers)
  write_basic_package_version_file(${name}-config-version.cmake COMPATIBILITY SameMinorVersion)
  install(TARGETS ${name} EXPORT ${name})
  install(EXPORT ${name} NAMESPACE ${name}:: FILE ${name}-config.cmake DESTINATION ${package})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}-config-version.cmake DESTINATION ${package})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

# corvane_test(NAME SOURCES file... USES library... [PROPERTIES property value...])
function(corvane_test name)
  if(NOT CORVANE_TESTS)
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;USES;PROPERTIES")
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE corvane_options ${arg_USES} GTest::gtest GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE CORVANE_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
                             CORVANE_BIN_DIR="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT 600 ${arg_PROPERTIES})
endfunction()
