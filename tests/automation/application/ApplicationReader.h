// What an application built against libKorvane does with the interfaces:
// implement a reader of its own, and call the library's reader and writer.
// Compiled with the public include directory only.
#ifndef KORVANE_TESTS_APPLICATION_READER_H
#define KORVANE_TESTS_APPLICATION_READER_H

#include <string>
#include <vector>

#include "korvane/interfaces.h"

namespace application {

// What the application's reader answers, and what happened to it.
struct SensorState {
    std::string typeName;
    bool typeAnswers = true;   // getType returns true
    bool typeWritesNul = true; // getType terminates the text it writes
    double number = 0;         // every scalar getter answers this, cast to its type
    std::string text;          // the text getter's answer
    std::vector<std::string> calls;     // value getters called, by the type they serve
    std::vector<std::string> lifecycle; // "final release", "destroyed"
};

// A reader on the public stub reporting into `state` (which must outlive
// it); count 1.
IVariantRead* makeSensorReader(SensorState& state);

// The library's reader used through its slots: type name, an int, the value
// text, and the count after a successful queryInterface("IBase") plus one
// addRef (both references are given back). "IVariantWrite" must be refused.
struct LibraryReading {
    std::string typeName;
    int asInt = 0;
    std::string text;
    bool refusedWriter = false;
    int64_t countAfterQuery = 0;
};
LibraryReading readThroughSlots(IVariantRead* reader);
// Sets an int through the library's writer, then a type by name.
bool writeThroughSlots(IVariantWrite* writer, int value, const char* typeName);

// The slot of each operation as the public header lays it out: slots 0 to
// 17 in declaration order, then onFinalRelease; -1 for a non-virtual one.
std::vector<long> readerSlots();
std::vector<long> writerSlots();

} // namespace application

#endif
