# Flags that every target of the project is built with.
add_library(qurn_build_flags INTERFACE)
target_compile_features(qurn_build_flags INTERFACE cxx_std_20)
target_compile_definitions(qurn_build_flags INTERFACE _GNU_SOURCE)
target_compile_options(
  qurn_build_flags
  INTERFACE -Wall -Wextra -Wconversion -Wshadow -Werror
            # Tables of rows are read better without a second pair of braces.
            $<$<CXX_COMPILER_ID:Clang>:-Wno-missing-braces>
            -fstack-protector-strong
            # The same file from whatever directory it was built in.
            -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
            $<$<COMPILE_LANG_AND_ID:C,Clang>:-fdebug-compilation-dir=.>
            $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-fdebug-compilation-dir=.>)
# Landing pads for indirect jumps, and return addresses that are checked, where the machine has it.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|amd64")
  target_compile_options(qurn_build_flags INTERFACE -fcf-protection=full)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
  target_compile_options(qurn_build_flags INTERFACE -mbranch-protection=standard)
endif()
# Bound at load time, so that no call from a signal handler ever enters the lazy binder.
target_link_options(qurn_build_flags INTERFACE -Wl,-z,now -Wl,-z,relro -Wl,--as-needed
                    -Wl,--no-undefined-version)

if(QURN_SANITIZE)
  target_compile_options(qurn_build_flags INTERFACE -fsanitize=${QURN_SANITIZE}
                                                    -fno-omit-frame-pointer)
  target_link_options(qurn_build_flags INTERFACE -fsanitize=${QURN_SANITIZE})
  if(QURN_SANITIZE MATCHES undefined)
    target_compile_options(qurn_build_flags INTERFACE -fno-sanitize-recover=undefined)
  endif()
endif()

# Checked forms of the system library's calls, for what is shipped: tests replace the plain ones.
add_library(qurn_fortified INTERFACE)
if(NOT QURN_SANITIZE)
  target_compile_options(
    qurn_fortified INTERFACE $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
                             $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
endif()
