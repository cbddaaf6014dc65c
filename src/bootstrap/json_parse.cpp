#include "bootstrap/json_parse.h"

#include <stdexcept>

std::string ParseJson(const std::string& text, picojson::value& value)
{
    std::string error;
    try
    {
        picojson::parse(value, text.data(), text.data() + text.size(), &error);
    }
    catch (const std::overflow_error&)
    {
        // JSON's grammar allows 1e999; a double cannot hold it.
        return "number out of range";
    }
    return error;
}
