# Turns the compiled .res into a C++ source for the host build: the bytes, and their registration with the
# stand-in's resource functions when the module that holds them is loaded.
file(READ ${INPUT} bytes HEX)
string(LENGTH "${bytes}" digits)
math(EXPR size "${digits} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
string(REPEAT "0x[0-9a-f][0-9a-f]," 24 line)
string(REGEX REPLACE "(${line})" "\\1\n    " bytes "${bytes}")
file(WRITE ${OUTPUT} "// Generated from Velmount.res by EmbedResources.cmake. Do not edit.
#include \"platform/Win32.h\"

extern \"C\" __attribute__((aligned(4))) const unsigned char VmEmbeddedResources[${size}] = {
    ${bytes}
};

namespace
{
struct Registration
{
    Registration() { VmHostRegisterModuleResources(VmEmbeddedResources, VmEmbeddedResources, ${size}); }
} g_registration;
} // namespace
")
