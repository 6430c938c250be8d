# cmake -DPAGE=status.html -DOUTPUT=file.cpp -P EmbedPage.cmake: writes the page as a C++ string literal.
file(READ ${PAGE} text)
if(text MATCHES "\\)zolpage\"")
    message(FATAL_ERROR "${PAGE} contains the mark that ends the literal")
endif()
set(code "#include \"gateway/http/ZolStatusPage.h\"\n\nstd::string_view zolStatusPage()\n{\n    return R\"zolpage(")
string(APPEND code "${text}")
string(APPEND code ")zolpage\";\n}\n")
file(WRITE ${OUTPUT} "${code}")
