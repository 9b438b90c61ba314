# Flags that every target of the project is built with.
add_library(qurn_build_flags INTERFACE)
target_compile_features(qurn_build_flags INTERFACE cxx_std_20)
target_compile_definitions(qurn_build_flags INTERFACE _GNU_SOURCE)
target_compile_options(
  qurn_build_flags
  INTERFACE -Wall -Wextra -Wconversion -Wshadow -Werror
            -fstack-protector-strong)
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
