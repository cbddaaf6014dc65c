// The one way this plugin parses JSON text that comes from outside: the data
// file and the cloud's reply.
#pragma once

#include <string>

#include <picojson.h>

// Parses text into value. Gives the empty text on success, else what is
// wrong: picojson's own error text, or "number out of range" for a number
// beyond a double's range (which picojson reports by throwing). The value is
// unspecified after a failure.
std::string ParseJson(const std::string& text, picojson::value& value);
