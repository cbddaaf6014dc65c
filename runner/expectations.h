// What a step of a scenario expects to happen, and what did happen in it.
// The runner records each step's effects (StepEffects) while it plays it and
// checks them against the step's "expect" object right after the step.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "runner/scenario.h"

namespace runner
{
// One line of the plugin's log: "HH:MM:SS.mmm <thread> <LEVEL> <indent><function>: <text>".
struct LogLine
{
    std::string time;
    std::string thread;
    std::string level;
    std::string function;
    std::string text;

    // "LEVEL function: text", the form expectations use.
    std::string Shown() const { return level + " " + (function.empty() ? text : function + ": " + text); }
};

// A registry value that a step changed: before and after, as Describe gives
// them ("dword 1", "string \"x\"", "absent").
struct RegistryChange
{
    std::string place; // "HKLM\SOFTWARE\Quillmarten\Security\CfgStatus"
    std::string before;
    std::string after;
};

// Everything a step did, as the runner saw it.
struct StepEffects
{
    std::vector<std::string> hostCalls; // the host's journal lines
    std::vector<LogLine> log;
    std::vector<std::string> launches;  // command lines
    std::vector<uint32_t> sessions;     // the session of each launch
    std::vector<std::string> cloud;     // request parameters
    std::vector<std::string> bootstrap; // the data file's content at each rewrite, as shown
    std::vector<std::string> modules;   // "<application> on|off"
    std::vector<std::string> wsc;
    std::vector<RegistryChange> registry;
};

// One expectation that did not hold: its name ("launches", "log",
// "registry HKLM\...\CfgStatus", "host SetTimer _ProductCfgTimer"), and the
// expected and actual lines.
struct Unmet
{
    std::string what;
    std::vector<std::string> expected;
    std::vector<std::string> happened;
};

// The expectations of a step that do not hold for what it did. Registry
// values are read as they are now.
std::vector<Unmet> Check(const scenario::Expectations& expect, const StepEffects& effects);

// "expected" and "happened" side by side, one line each, the first column
// padded; a longer list leaves the other column empty.
std::vector<std::string> SideBySide(const Unmet& unmet);

// "dword 1", "string \"x\"" or "absent".
std::string ValueText(const scenario::RegistryValue& value);
} // namespace runner
