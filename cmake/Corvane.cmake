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
