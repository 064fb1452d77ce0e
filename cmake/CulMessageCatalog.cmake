#[[
Message catalogs: the texts that a program shows to its user, in several languages, in a
shared library that XPG4MsgServer (Engine/utilities/msgserv/XPG4MsgServer.h) loads by name.

  cul_add_message_catalog(<target> NAME <name> MESSAGES <locale> <file> [<locale> <file>]...)

makes a target of the library libwobn<name>.so from one message source for each language. The
first one is in the base language: it has every message, and its text is used where another
language has none. An error in a source is told with its file and line, and so is a message
that the base does not have or whose printf() directives are not those of the base. When a
source changes, the library is built again.

  <target>  the name of the CMake target, which can be installed as any library; nobody links
            with it
  <name>    as in XPG4MsgServer(nullptr, "<name>")
  <locale>  one of the messageLocales in LibraryMessageServer.h, such as de_DE
  <file>    relative to the current source folder; the form is that of `gencat`:
            "$set 1", then lines such as "7 text", see `gencat` in POSIX

    cul_add_message_catalog(mytool_messages NAME mytool
      MESSAGES en_US messages/en_US.msg de_DE messages/de_DE.msg)
    add_dependencies(mytool mytool_messages)

The library lies where the project's other libraries do. XPG4MsgServer finds it as the dynamic
loader finds libraries: beside libcul.so, in the folder "cul" there, or along LD_LIBRARY_PATH.

Needs C++ as a language of the project and the target cul::message_compiler.
#]]
function(cul_add_message_catalog target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "NAME" "MESSAGES")
  list(LENGTH arg_MESSAGES count)
  math(EXPR odd "${count} % 2")
  if(NOT arg_NAME OR count EQUAL 0 OR odd OR arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "cul_add_message_catalog(${ARGV}): see CulMessageCatalog.cmake")
  endif()
  set(languages "")
  set(files "")
  while(arg_MESSAGES)
    list(POP_FRONT arg_MESSAGES locale file)
    cmake_path(ABSOLUTE_PATH file BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR} NORMALIZE)
    list(APPEND languages ${locale}=${file})
    list(APPEND files ${file})
  endwhile()
  set(source ${CMAKE_CURRENT_BINARY_DIR}/wobn${arg_NAME}.cpp)
  add_custom_command(
    OUTPUT ${source}
    COMMAND $<TARGET_FILE:cul::message_compiler> -o ${source} ${languages}
    DEPENDS ${files} cul::message_compiler
    COMMENT "Compiling the messages of ${arg_NAME}"
    VERBATIM)
  add_library(${target} MODULE ${source})
  set_target_properties(${target} PROPERTIES
    PREFIX lib
    SUFFIX .so
    OUTPUT_NAME wobn${arg_NAME}
    CXX_VISIBILITY_PRESET hidden)
endfunction()
