# Writes a manual page for the build, stamped with the version:
#   cmake -DSOURCE=docs/NAME.N -DOUTPUT=FILE -DVERSION=X.Y.Z -P packaging/manpage.cmake
# In the source the .TH line names the program's package as the bare word
# korvane, so that the version is written in the project() line only; here
# that word becomes "korvane X.Y.Z".
file(READ "${SOURCE}" page)
set(th "^\\.TH [^ \n]+ [1-9][a-z]* [0-9-]+ ")
if(NOT page MATCHES "${th}korvane \"[^\"\n]+\"\n")
  message(FATAL_ERROR "${SOURCE}: the first line must be: .TH NAME SECTION DATE korvane \"TITLE\"")
endif()
string(REGEX REPLACE "(${th})korvane " "\\1\"korvane ${VERSION}\" " page "${page}")
file(WRITE "${OUTPUT}" "${page}")
