# Compiler settings shared by all targets.
#   vesk_warnings   warnings and sanitizers: link it into everything
#   vesk_connector  on top of that, what ships inside somebody's web server
add_library(vesk_warnings INTERFACE)
target_compile_options(vesk_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Wundef -Wcast-qual
  $<$<BOOL:${VESK_WERROR}>:-Werror>)
if(VESK_SANITIZE)
  add_compile_options(-fsanitize=${VESK_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${VESK_SANITIZE})
  if(VESK_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()

# Fuzzers want every library to count the edges that it takes.
if(VESK_FUZZERS)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

add_library(vesk_connector INTERFACE)
target_link_libraries(vesk_connector INTERFACE vesk_warnings)
target_compile_options(vesk_connector INTERFACE -fvisibility=hidden
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions;-fno-rtti;-fvisibility-inlines-hidden>)
