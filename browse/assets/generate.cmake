# Writes browse_assets.h: each file of browse/assets as a fragment of markup, so that the
# style sheet and the scripts are edited as the files they are; and each template of
# browse/assets/templates (NAME.html, NAME.txt) as assets::NAME, a literal for html::fill
# whose `{}` holes take escaped text.
#   cmake -DOUT=<header> -DASSETS="<file>;<file>..." -P generate.cmake
set(text "// Generated from browse/assets/ at build time; edit those files instead.\n")
string(APPEND text "#pragma once\n\n#include \"html.h\"\n\nnamespace browse::assets {\n")
foreach(path IN LISTS ASSETS)
  get_filename_component(name ${path} NAME)
  string(MAKE_C_IDENTIFIER ${name} id)
  file(READ ${path} content)
  string(FIND "${content}" ")asset\"" clash)
  if(NOT clash EQUAL -1)
    message(FATAL_ERROR "${path} holds the literal's delimiter )asset\"")
  endif()
  if(path MATCHES "/templates/")
    get_filename_component(name ${path} NAME_WE)
    string(REGEX REPLACE "\n$" "" content "${content}")
    string(APPEND text "\ninline constexpr char ${name}[] = R\"asset(${content})asset\";\n")
  else()
    string(APPEND text "\ninline const html& ${id}() {\n"
                       "    static const html fragment = html{}.markup(R\"asset(${content})asset\");\n"
                       "    return fragment;\n}\n")
  endif()
endforeach()
string(APPEND text "\n}  // namespace browse::assets\n")
file(WRITE ${OUT}.new "${text}")
file(COPY_FILE ${OUT}.new ${OUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUT}.new)
