# What the compiler and the linker add to a release build against memory errors. Sanitized builds do without: the sanitizers
# find more, and do not know the functions that _FORTIFY_SOURCE substitutes. Flags that this compiler or machine does not
# support are left out; packaging/package-trial checks the packaged files.
include(CheckCXXCompilerFlag)
include(CheckLinkerFlag)
include(CheckPIESupported)

check_pie_supported(LANGUAGES C CXX)
foreach(flag IN ITEMS -fstack-protector-strong -fstack-clash-protection -fcf-protection -mbranch-protection=standard)
  string(MAKE_C_IDENTIFIER "ZELVIND_HAS${flag}" has)
  check_cxx_compiler_flag(${flag} ${has})
  if(${has})
    add_compile_options(${flag})
  endif()
endforeach()
add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
foreach(flag IN ITEMS -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
  string(MAKE_C_IDENTIFIER "ZELVIND_HAS${flag}" has)
  check_linker_flag(CXX ${flag} ${has})
  if(${has})
    add_link_options(${flag})
  endif()
endforeach()
