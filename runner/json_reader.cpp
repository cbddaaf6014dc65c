#include "runner/json_reader.h"

#include <windows.h>

#include <cmath>
#include <limits>

namespace scenario
{
namespace
{
using TextIterator = std::string::const_iterator;
using Input = picojson::input<TextIterator>;

// Nesting a scenario never needs; bounds the parser's recursion.
constexpr size_t kMaxDepth = 32;

// What the parse contexts found wrong, with the line it was found on.
struct ParseProblem
{
    const Input* input = nullptr;
    std::string text;
    int line = 0;

    void Set(const std::string& what)
    {
        if (text.empty())
        {
            text = what;
            line = input->line();
        }
    }
};

// picojson's default context, made strict: a number that does not fit a
// double, a repeated key or deeper nesting than kMaxDepth is a problem
// instead of an exception, a silent overwrite or unbounded recursion.
class StrictContext
{
public:
    StrictContext(picojson::value* out, ParseProblem& problem, size_t depth)
        : out(out), problem(problem), depth(depth)
    {
    }

    bool set_null()
    {
        *out = picojson::value();
        return true;
    }
    bool set_bool(bool b)
    {
        *out = picojson::value(b);
        return true;
    }
    // picojson ignores this result, so a bad number is recorded and parsing
    // goes on; the caller reports it afterwards.
    bool set_number(double f)
    {
        if (!std::isfinite(f))
        {
            problem.Set("number out of range");
            *out = picojson::value();
            return false;
        }
        *out = picojson::value(f);
        return true;
    }
    template <class Iter>
    bool parse_string(picojson::input<Iter>& in)
    {
        *out = picojson::value(picojson::string_type, false);
        return picojson::_parse_string(out->get<std::string>(), in);
    }
    bool parse_array_start() { return Enter(picojson::array_type); }
    template <class Iter>
    bool parse_array_item(picojson::input<Iter>& in, size_t)
    {
        picojson::array& items = out->get<picojson::array>();
        items.push_back(picojson::value());
        StrictContext inner(&items.back(), problem, depth - 1);
        return picojson::_parse(inner, in);
    }
    bool parse_array_stop(size_t) { return true; }
    bool parse_object_start() { return Enter(picojson::object_type); }
    template <class Iter>
    bool parse_object_item(picojson::input<Iter>& in, const std::string& key)
    {
        picojson::object& fields = out->get<picojson::object>();
        if (fields.count(key) != 0)
        {
            problem.Set("duplicate key \"" + key + "\"");
            return false;
        }
        StrictContext inner(&fields[key], problem, depth - 1);
        return picojson::_parse(inner, in);
    }
    bool parse_object_stop() { return true; }

private:
    bool Enter(int type)
    {
        if (depth == 0)
        {
            problem.Set("nesting deeper than " + std::to_string(kMaxDepth) + " levels");
            return false;
        }
        *out = picojson::value(type, false);
        return true;
    }

    picojson::value* out;
    ParseProblem& problem;
    size_t depth;
};

// The rest of the current line, as picojson quotes it in its messages.
std::string RestOfLine(Input& in)
{
    std::string rest;
    for (int ch = in.getc(); ch != -1 && ch != '\n'; ch = in.getc())
    {
        if (ch >= ' ')
            rest.push_back(static_cast<char>(ch));
    }
    return rest;
}

bool SetOnce(std::string& error, const std::string& text)
{
    if (error.empty())
        error = text;
    return false;
}

const char* KindOf(const picojson::value& value)
{
    if (value.is<picojson::null>())
        return "null";
    if (value.is<bool>())
        return "true or false";
    if (value.is<double>())
        return "a number";
    if (value.is<std::string>())
        return "a text";
    if (value.is<picojson::array>())
        return "a list";
    return "an object";
}

std::string Mismatch(const std::string& path, const std::string& expected, const picojson::value& value)
{
    return path + ": expected " + expected + ", found " + KindOf(value);
}
} // namespace

std::string ParseJson(const std::string& text, picojson::value& out)
{
    ParseProblem problem;
    Input in(text.begin(), text.end());
    problem.input = &in;
    StrictContext context(&out, problem, kMaxDepth);
    const bool parsed = picojson::_parse(context, in);
    if (!problem.text.empty())
        return "line " + std::to_string(problem.line) + ": " + problem.text;
    if (parsed)
    {
        in.skip_ws();
        if (in.getc() == -1)
            return std::string();
        in.ungetc();
    }
    const std::string where = "syntax error at line " + std::to_string(in.line()) + " near: ";
    return where + RestOfLine(in);
}

std::string JoinPath(const std::string& path, const std::string& key)
{
    return path.empty() ? key : path + "." + key;
}

std::string JoinPath(const std::string& path, size_t index)
{
    return path + "[" + std::to_string(index) + "]";
}

bool WidenUtf8(const std::string& text, std::wstring& out)
{
    if (text.empty())
    {
        out.clear();
        return true;
    }
    if (text.size() > static_cast<size_t>(std::numeric_limits<int>::max()))
        return false;
    const int size = static_cast<int>(text.size());
    const int length = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, nullptr, 0);
    if (length <= 0)
        return false;
    std::wstring wide(static_cast<size_t>(length), L'\0');
    if (MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, &wide[0], length) != length)
        return false;
    out = std::move(wide);
    return true;
}

std::string ExpectedNumber(uint64_t max)
{
    return "a whole number from 0 to " + std::to_string(max);
}

std::string ExpectedInt32()
{
    return "a whole number from " + std::to_string(std::numeric_limits<int32_t>::min()) + " to " +
           std::to_string(std::numeric_limits<int32_t>::max());
}

std::string JoinNames(const std::vector<const char*>& names)
{
    std::string joined;
    for (const char* name : names)
    {
        if (!joined.empty())
            joined += ", ";
        joined += name;
    }
    return joined;
}

bool ReadUint64(const picojson::value& value, const std::string& path, uint64_t max, uint64_t& out,
                std::string& error)
{
    if (!value.is<double>())
        return SetOnce(error, Mismatch(path, ExpectedNumber(max), value));
    const double number = value.get<double>();
    // max stays far below 2^53 here, so the comparison is exact.
    if (number < 0 || number > static_cast<double>(max) || number != std::floor(number))
        return SetOnce(error, path + ": expected " + ExpectedNumber(max) + ", found " + value.to_str());
    out = static_cast<uint64_t>(number);
    return true;
}

bool ReadUint32(const picojson::value& value, const std::string& path, uint32_t& out, std::string& error)
{
    uint64_t wide = 0;
    if (!ReadUint64(value, path, std::numeric_limits<uint32_t>::max(), wide, error))
        return false;
    out = static_cast<uint32_t>(wide);
    return true;
}

bool ReadInt32(const picojson::value& value, const std::string& path, int32_t& out, std::string& error)
{
    if (!value.is<double>())
        return SetOnce(error, Mismatch(path, ExpectedInt32(), value));
    const double number = value.get<double>();
    // Both bounds are exact as doubles.
    if (number < std::numeric_limits<int32_t>::min() || number > std::numeric_limits<int32_t>::max() ||
        number != std::floor(number))
        return SetOnce(error, path + ": expected " + ExpectedInt32() + ", found " + value.to_str());
    out = static_cast<int32_t>(number);
    return true;
}

bool ReadBool(const picojson::value& value, const std::string& path, bool& out, std::string& error)
{
    if (!value.is<bool>())
        return SetOnce(error, Mismatch(path, "true or false", value));
    out = value.get<bool>();
    return true;
}

bool ReadText(const picojson::value& value, const std::string& path, std::string& out, std::string& error)
{
    if (!value.is<std::string>())
        return SetOnce(error, Mismatch(path, "a text", value));
    out = value.get<std::string>();
    return true;
}

bool ReadWideText(const picojson::value& value, const std::string& path, std::wstring& out, std::string& error)
{
    std::string text;
    if (!ReadText(value, path, text, error))
        return false;
    if (text.find('\0') != std::string::npos)
        return SetOnce(error, path + ": expected a text without NUL characters");
    if (!WidenUtf8(text, out))
        return SetOnce(error, path + ": expected a text in UTF-8");
    return true;
}

FieldReader::FieldReader(const picojson::value& value, std::string path, std::string& error)
    : path(std::move(path)), error(error)
{
    if (value.is<picojson::object>())
        object = &value.get<picojson::object>();
    else
        SetOnce(error, Mismatch(this->path.empty() ? std::string("the scenario") : this->path, "an object", value));
}

const picojson::value* FieldReader::Find(const std::string& key) const
{
    if (object == nullptr)
        return nullptr;
    auto it = object->find(key);
    return it == object->end() ? nullptr : &it->second;
}

void FieldReader::Fail(const std::string& key, const std::string& what)
{
    SetOnce(error, PathOf(key) + ": " + what);
}

const picojson::value* FieldReader::Present(const std::string& key, Need need, const char* expected)
{
    if (!Ok())
        return nullptr;
    const picojson::value* value = Find(key);
    if (value == nullptr && need == Need::Required)
        Fail(key, std::string("missing (expected ") + expected + ")");
    return value;
}

void FieldReader::Uint32(const std::string& key, uint32_t& out, Need need)
{
    const std::string expected = ExpectedNumber(std::numeric_limits<uint32_t>::max());
    if (const picojson::value* value = Present(key, need, expected.c_str()))
        ReadUint32(*value, PathOf(key), out, error);
}

void FieldReader::Uint64(const std::string& key, uint64_t max, uint64_t& out, Need need)
{
    const std::string expected = ExpectedNumber(max);
    if (const picojson::value* value = Present(key, need, expected.c_str()))
        ReadUint64(*value, PathOf(key), max, out, error);
}

void FieldReader::Int32(const std::string& key, int32_t& out, Need need)
{
    const std::string expected = ExpectedInt32();
    if (const picojson::value* value = Present(key, need, expected.c_str()))
        ReadInt32(*value, PathOf(key), out, error);
}

void FieldReader::Int32List(const std::string& key, std::vector<int32_t>& out, Need need)
{
    const std::string expected = "a list of whole numbers from " + std::to_string(std::numeric_limits<int32_t>::min()) +
                                 " to " + std::to_string(std::numeric_limits<int32_t>::max());
    const picojson::value* value = Present(key, need, expected.c_str());
    if (value == nullptr)
        return;
    if (!value->is<picojson::array>())
        return Fail(key, "expected " + expected + ", found " + KindOf(*value));
    std::vector<int32_t> numbers;
    for (const picojson::value& item : value->get<picojson::array>())
    {
        int32_t number = 0;
        if (!ReadInt32(item, JoinPath(PathOf(key), numbers.size()), number, error))
            return;
        numbers.push_back(number);
    }
    out = std::move(numbers);
}

void FieldReader::Bool(const std::string& key, bool& out, Need need)
{
    if (const picojson::value* value = Present(key, need, "true or false"))
        ReadBool(*value, PathOf(key), out, error);
}

void FieldReader::Text(const std::string& key, std::string& out, Need need)
{
    if (const picojson::value* value = Present(key, need, "a text"))
        ReadText(*value, PathOf(key), out, error);
}

void FieldReader::WideText(const std::string& key, std::wstring& out, Need need)
{
    if (const picojson::value* value = Present(key, need, "a text"))
        ReadWideText(*value, PathOf(key), out, error);
}

void FieldReader::OnlyKeys(const std::vector<const char*>& known)
{
    if (!Ok() || object == nullptr)
        return;
    for (const auto& field : *object)
    {
        bool isKnown = false;
        for (const char* name : known)
            isKnown = isKnown || field.first == name;
        if (!isKnown)
        {
            Fail(field.first, "unknown key (expected one of: " + JoinNames(known) + ")");
            return;
        }
    }
}
} // namespace scenario
