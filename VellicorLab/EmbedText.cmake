# cmake -DINPUT=<file> -DOUTPUT=<file> -P EmbedText.cmake
# Writes an ASCII text file as a comma-separated list of C++ string literals. Pieces stay below the length that every
# compiler must accept in one literal.
set(piece 16000)
file(READ "${INPUT}" text)
string(LENGTH "${text}" length)
set(literals "")
set(offset 0)
while(offset LESS length)
  string(SUBSTRING "${text}" ${offset} ${piece} part)
  string(APPEND literals "R\"~~(${part})~~\",\n")
  math(EXPR offset "${offset} + ${piece}")
endwhile()
file(WRITE "${OUTPUT}" "${literals}")
