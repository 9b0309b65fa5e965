# Makes the table of the page's files: cmake -DOUTPUT=FILE -DFILES=LIST -P embed.cmake
set(table "")
set(arrays "")
set(index 0)
foreach(file IN LISTS FILES)
  get_filename_component(name "${file}" NAME)
  file(READ "${file}" hex HEX)
  string(LENGTH "${hex}" size)
  math(EXPR size "${size} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "\\\\x\\1" text "${hex}")
  string(APPEND arrays "const char kFile${index}[] = \"${text}\";\n")
  string(APPEND table "    {\"${name}\", {kFile${index}, ${size}}},\n")
  math(EXPR index "${index} + 1")
endforeach()
file(WRITE "${OUTPUT}" "#include \"tools/web/files.h\"

namespace nimbus::web {
namespace {

${arrays}
const File kFiles[] = {
${table}};

}  // namespace

std::span<const File> page_files() { return kFiles; }

}  // namespace nimbus::web
")
