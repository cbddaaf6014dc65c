// Strict JSON reading for scenario files: the whole text must be one value,
// numbers must be finite, keys unique, nesting bounded. Typed access to the
// fields of an object reports the first problem as text with the path of the
// offending field ("steps[2].ms: ..."); nothing throws.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <picojson.h>

namespace scenario
{
// Parses text into out. Gives "" on success, else a message with the line,
// e.g. "syntax error at line 3 near: ..." or "line 7: duplicate key \"ms\"".
std::string ParseJson(const std::string& text, picojson::value& out);

// "" + "steps" -> "steps", "steps" + 2 -> "steps[2]", "steps[2]" + "ms" -> "steps[2].ms".
std::string JoinPath(const std::string& path, const std::string& key);
std::string JoinPath(const std::string& path, size_t index);

// UTF-8 to UTF-16; false when text is not valid UTF-8.
bool WidenUtf8(const std::string& text, std::wstring& out);

// Converters of one value at path. On a mismatch they set error (unless an
// earlier problem is recorded there already), leave out alone and give false.
bool ReadUint32(const picojson::value& value, const std::string& path, uint32_t& out, std::string& error);
bool ReadUint64(const picojson::value& value, const std::string& path, uint64_t max, uint64_t& out,
                std::string& error);
bool ReadInt32(const picojson::value& value, const std::string& path, int32_t& out, std::string& error);
bool ReadBool(const picojson::value& value, const std::string& path, bool& out, std::string& error);
bool ReadText(const picojson::value& value, const std::string& path, std::string& out, std::string& error);
bool ReadWideText(const picojson::value& value, const std::string& path, std::wstring& out, std::string& error);

// Reads the fields of one JSON object. The first problem wins: later reads
// through the same error text do nothing once it is set.
class FieldReader
{
public:
    enum class Need
    {
        Optional,
        Required,
    };

    // value must be an object; otherwise error is set at path.
    FieldReader(const picojson::value& value, std::string path, std::string& error);

    bool Ok() const { return error.empty(); }
    const std::string& Path() const { return path; }
    std::string PathOf(const std::string& key) const { return JoinPath(path, key); }
    // The value under key, or null when absent (or this is no object).
    const picojson::value* Find(const std::string& key) const;
    // Records "<path.key>: what" unless a problem is recorded already.
    void Fail(const std::string& key, const std::string& what);

    // Absent and optional: out stays as it is. Absent and required: a
    // "missing" problem naming what was expected.
    void Uint32(const std::string& key, uint32_t& out, Need need);
    void Uint64(const std::string& key, uint64_t max, uint64_t& out, Need need);
    void Int32(const std::string& key, int32_t& out, Need need);
    // A list of whole numbers, each as Int32 takes it; out is replaced.
    void Int32List(const std::string& key, std::vector<int32_t>& out, Need need);
    void Bool(const std::string& key, bool& out, Need need);
    void Text(const std::string& key, std::string& out, Need need);
    void WideText(const std::string& key, std::wstring& out, Need need);

    // Rejects any key not in known, naming it and listing the known ones.
    void OnlyKeys(const std::vector<const char*>& known);

    // Calls read with a reader of the object under key (at path.key, sharing
    // this reader's error text); expected names it in a "missing" problem.
    template <class Read>
    void Object(const std::string& key, Need need, const char* expected, Read read)
    {
        if (const picojson::value* value = Present(key, need, expected))
        {
            FieldReader inner(*value, PathOf(key), error);
            if (inner.Ok())
                read(inner);
        }
    }

private:
    const picojson::value* Present(const std::string& key, Need need, const char* expected);

    const picojson::object* object = nullptr;
    std::string path;
    std::string& error;
};

// "a whole number from 0 to max"
std::string ExpectedNumber(uint64_t max);
// "a whole number from -2147483648 to 2147483647"
std::string ExpectedInt32();
// "a, b, c"
std::string JoinNames(const std::vector<const char*>& names);
} // namespace scenario
