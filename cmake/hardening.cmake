# Our mistakes and hostile input should end in a message, not in an attacker's code.
include(CheckCXXCompilerFlag)
target_compile_options(project_options INTERFACE -Wformat=2 -Werror=format -fstack-protector-strong)
target_compile_definitions(project_options INTERFACE _GLIBCXX_ASSERTIONS)
# Not every processor and compiler has these: checked targets of indirect calls and returns (x86 alone), and a
# stack that does not jump over its guard page.
set(CMAKE_REQUIRED_FLAGS -Werror) # clang accepts options that it then ignores
foreach(flag IN ITEMS -fcf-protection=full -fstack-clash-protection)
  string(MAKE_C_IDENTIFIER "HAS${flag}" known)
  check_cxx_compiler_flag(${flag} ${known})
  if(${known})
    target_compile_options(project_options INTERFACE ${flag})
  endif()
endforeach()
unset(CMAKE_REQUIRED_FLAGS)
# The linker marks a file as fit for a shadow stack if all its parts are marked. Debian's start files are fit, but not
# marked. They lack the marks for indirect branches, so those are not claimed.
if(HAS_fcf_protection_full)
  target_link_options(project_options INTERFACE -Wl,-z,shstk)
endif()
target_link_options(project_options INTERFACE -Wl,-z,relro,-z,now,-z,text,-z,noexecstack)
if(NOT SCREENRECORD_SANITIZE) # which check more
  target_compile_options(project_options INTERFACE
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE$<SEMICOLON>-D_FORTIFY_SOURCE=3>)
endif()
