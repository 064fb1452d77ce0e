# Writes the source that holds the page, in two parts: what comes before the lines of the trace, and
# what comes behind them.
#   cmake -D FOLDER=<of the page> -D OUTPUT=<source> -P MakePage.cmake
foreach(name page.html page.css page.js)
  file(READ ${FOLDER}/${name} ${name})
endforeach()
string(REPLACE "/* page.css */\n" "${page.css}" page "${page.html}")
string(REPLACE "// page.js\n" "${page.js}" page "${page}")
set(marker "<!-- The lines -->\n")
string(FIND "${page}" "${marker}" at)
if(at EQUAL -1)
  message(FATAL_ERROR "page.html: no place for the lines")
endif()
string(SUBSTRING "${page}" 0 ${at} before)
string(LENGTH "${marker}" length)
math(EXPR at "${at} + ${length}")
string(SUBSTRING "${page}" ${at} -1 behind)
file(WRITE ${OUTPUT} "#include \"programs/enginetrace/Page.h\"

const std::string_view pageBeforeLines = R\"page(${before})page\";
const std::string_view pageBehindLines = R\"page(${behind})page\";
")
