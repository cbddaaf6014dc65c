// The machine-readable report of a run (OrbhubSim --json FILE): the setup,
// every step with what it did and its expectations, and the teardown
// summary, as one JSON document. docs/scenario-format.md shows its shape.
#pragma once

#include <string>
#include <vector>

#include <picojson.h>

#include "runner/expectations.h"

namespace runner
{
class JsonReport
{
public:
    void Begin(const std::string& scenarioPath, const std::string& pluginPath, const std::string& description);
    void Setup(const std::vector<std::string>& lines);
    // One step: index, its one-line description, its note, the host's
    // virtual time after it, what it did and its expectations' outcome.
    void Step(size_t index, const std::string& name, const std::string& note, uint64_t timeMs,
              const StepEffects& effects, bool expectations, const std::vector<Unmet>& unmet);
    void Summary(const std::vector<std::string>& lines, const std::vector<std::string>& failures, int exitStatus);

    // The document as text, indented.
    std::string Text() const;

private:
    picojson::object document;
    picojson::array steps;
};

// Writes text to path; false when it cannot.
bool WriteTextFile(const std::wstring& path, const std::string& text);
} // namespace runner
