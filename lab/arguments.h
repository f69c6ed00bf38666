// Options of the command line that are more than a word or a number. What is wrong with one is thrown as a
// LabError.
#pragma once

#include <string>

#include "capture-reader.h"
#include "machine-room.h"
#include "session.h"

namespace lab
{

MacAddress ParseMacAddress(const std::string& option, const std::string& text);
NamedAdapter ParseAdapter(const std::string& text);                       // NAME=MAC
Setting ParseSetting(const std::string& option, const std::string& text); // DRIVER.VALUE=TEXT
Setting ParseNumberSetting(const std::string& text);                      // DRIVER.VALUE=NUMBER

} // namespace lab
