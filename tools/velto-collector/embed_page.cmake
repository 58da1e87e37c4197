# Writes the page into a C++ source file as a byte array: cmake -DIN=index.html -DOUT=file.cpp -P this.
# Run by the build whenever the page changes (tools/CMakeLists.txt), so the binary always serves the
# page of its own source tree and needs no files at run time.
file(READ "${IN}" hex HEX)
string(LENGTH "${hex}" hex_length)
math(EXPR size "${hex_length} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" bytes "${bytes}")
file(WRITE "${OUT}.tmp"
  "// Generated from ${IN} by embed_page.cmake; do not edit.\n"
  "#include \"web_page.h\"\n\n"
  "namespace vcollect {\n\n"
  "const unsigned char kPageHtml[] = {\n${bytes}0x00};\n"
  "const size_t kPageHtmlSize = ${size};\n\n"
  "}  // namespace vcollect\n")
file(RENAME "${OUT}.tmp" "${OUT}")
