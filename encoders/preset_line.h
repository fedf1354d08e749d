#pragma once
// The line syntax of the H.264 preset file, apart from the encoder that applies it.
#include <string>

namespace orvo {

// Splits one line (its newline removed) into an option name and value: "name=value",
// blanks before the name, the name ends at a blank or '=', the value is everything after
// the first '=' (empty without one), a trailing CR is dropped. False for blank lines and
// "#" comments, which set no option.
bool parsePresetLine(std::string line, std::string& key, std::string& value);

}  // namespace orvo
