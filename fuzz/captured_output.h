// What the server writes, kept in memory instead of going to standard output: linked in the place
// of server/output.cpp.

#pragma once

#include <QByteArrayList>

// The lines that the server has written since the last time; ends the program unless each looks
// like a whole object. That they are JSON is what fuzz_json is for.
QByteArrayList writtenLines();
