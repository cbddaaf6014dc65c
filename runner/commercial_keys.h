// The scenario keys of the commercial data: the data file and its folder,
// "Commercial_Details", and the cloud client's answers.
#pragma once

#include <string>

#include "runner/json_reader.h"
#include "runner/scenario.h"

namespace scenario
{
// The top-level keys "bootstrap_file", "commercial_details" and
// "cloud_answers" into out; the settings must have been read already.
// The first problem goes into error, as the other readers do.
void ReadCommercialKeys(FieldReader& top, Scenario& out, std::string& error);
} // namespace scenario
