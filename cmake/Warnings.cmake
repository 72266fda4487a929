# Compiler settings shared by all targets.
#   vesk_warnings   warnings and sanitizers: link it into everything
#   vesk_hardened   on top of that, what ships inside somebody's web server
#   vesk_connector  on top of that, the connector, which needs no C++ runtime
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

# What a peer sends is read here with the web server's rights. Sanitizers bring
# checks of their own, and fortified functions need the optimiser.
add_library(vesk_hardened INTERFACE)
target_link_libraries(vesk_hardened INTERFACE vesk_warnings)
if(NOT VESK_SANITIZE)
  set(optimised "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")
  target_compile_options(vesk_hardened INTERFACE -fstack-protector-strong
    $<${optimised}:-U_FORTIFY_SOURCE> $<${optimised}:-D_FORTIFY_SOURCE=2>)
  target_link_options(vesk_hardened INTERFACE LINKER:-z,relro LINKER:-z,now)
endif()

# A request goes through many small functions: what a web server loads is optimised as a
# whole, over the borders of files.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT VESK_SANITIZE)
  target_compile_options(vesk_hardened INTERFACE $<${optimised}:-flto>
    $<${optimised}:-ffat-lto-objects>)
  target_link_options(vesk_hardened INTERFACE $<${optimised}:-flto=auto>)
endif()

add_library(vesk_connector INTERFACE)
target_link_libraries(vesk_connector INTERFACE vesk_hardened)
target_compile_options(vesk_connector INTERFACE -fvisibility=hidden
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions;-fno-rtti;-fvisibility-inlines-hidden>)
