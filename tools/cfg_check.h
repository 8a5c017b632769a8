// What the program checks in a network description before the engine builds it: the engine
// skips sections it does not know, ignores keys no layer reads and takes an unknown
// activation name as none, which hides spelling mistakes. The program refuses them instead.
#pragma once
#include <string>

namespace orvacli {

// Throws std::runtime_error "<path>:<line>: <problem>" for the first of: a section the
// engine does not know, a key its section does not read (with the closest one it does), an
// activation name the engine does not know, an anchor list whose length is not 2 x num.
// Sections the table below does not list are checked for their activation and anchors only.
void checkDescription(const std::string& path);

// The candidate nearest to `word` by edit distance, "" when none is near enough to be a
// likely misspelling.
std::string closest(const std::string& word, const std::string* begin, const std::string* end);

}  // namespace orvacli
