# cmake -DPAGE=okv2.1.in -DCOMMANDS=commands.roff -DVERSION=1.0.0 -DOUTPUT=okv2.1 -P fill_in.cmake
# Puts the generated part into the page.
cmake_minimum_required(VERSION 3.22)
file(READ "${PAGE}" page)
file(READ "${COMMANDS}" commands)
string(STRIP "${commands}" commands)
string(REPLACE "@COMMANDS@" "${commands}" page "${page}")
string(REPLACE "@PROJECT_VERSION@" "${VERSION}" page "${page}")
file(WRITE "${OUTPUT}" "${page}")
