// The data file and the cloud's reply as an attacker or a failing disk may
// write them, generated from a seed: whatever comes, nothing crashes; Init
// takes the file's identifier, or none with the level-4 lines that say why;
// an update succeeds exactly for a reply that is a JSON object with a good
// status, whatever length its descriptor claims, reports only a failing
// status, and a reply that is no object leaves the file byte for byte as it
// was and the identifier too; 50 MiB of valid JSON are read and rewritten
// whole, and a 50 MiB reply that is no object is refused.
// Subscription records with no terminator in any text, types of any value
// and long feature lists reach the real plugin through a host that puts
// each record right before an inaccessible page: a read past the record
// ends the process.
// The seed is printed with every failure; PCP_SEED=n replays a run.
#include <algorithm>
#include <cstdlib>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <picojson.h>

#include "bootstrap/bootstrap.h"
#include "plugin_fixture.h"
#include "registry_scratch.h"

namespace
{
using Strings = std::vector<std::string>;

uint64_t Seed()
{
    const char* text = std::getenv("PCP_SEED");
    return text != nullptr ? std::strtoull(text, nullptr, 10) : 20261125;
}

// What the plugin reads of bytes written to a file: the C runtime's text
// mode turns CR LF into LF and ends the file at the first Ctrl-Z.
std::string AsReadInTextMode(const std::string& bytes)
{
    std::string text;
    for (size_t i = 0; i < bytes.size() && bytes[i] != '\x1a'; ++i)
    {
        if (bytes[i] == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n')
            continue;
        text += bytes[i];
    }
    return text;
}

// JSON of every type, nested up to depth, with the odd string and number.
std::string RandomJson(std::mt19937_64& rng, int depth)
{
    static const char* const kScalars[] = {"null", "true", "false", "0", "-0", "1.5e3", "1e999", "-1e999",
                                           "1e-999", "\"\"", "\"C1\"", "\"\\u0000x\"", "\"\xff\xfe\"", "\"\\ud800\""};
    switch (depth > 0 ? rng() % 4 : 0)
    {
    case 1:
        return "[" + RandomJson(rng, depth - 1) + "," + RandomJson(rng, depth - 1) + "]";
    case 2:
        return "{\"k" + std::to_string(rng() % 3) + "\":" + RandomJson(rng, depth - 1) + "}";
    default:
        return kScalars[rng() % (sizeof(kScalars) / sizeof(kScalars[0]))];
    }
}

// One hostile variation of a valid document.
std::string Mutate(std::mt19937_64& rng, const std::string& document)
{
    std::string bytes = document;
    switch (rng() % 7)
    {
    case 0: // cut short anywhere
        return bytes.substr(0, rng() % (bytes.size() + 1));
    case 1: // bytes replaced by anything, CR, LF, NUL and Ctrl-Z included
        for (int flips = 1 + static_cast<int>(rng() % 4); flips > 0; --flips)
            bytes[rng() % bytes.size()] = static_cast<char>(rng() % 256);
        return bytes;
    case 2: // nesting far past the parser's depth limit
    {
        const size_t depth = 100 + rng() % 20000;
        return std::string(depth, '[') + bytes + std::string(depth, ']');
    }
    case 3: // a byte order mark or stray bytes in front
        return (rng() % 2 ? "\xef\xbb\xbf" : std::string(1 + rng() % 3, static_cast<char>(rng() % 256))) + bytes;
    case 4: // text after the document
        return bytes + (rng() % 2 ? "\nrest, not JSON [" : "{}");
    case 5: // app_data of any type
        return R"({"app_data":)" + RandomJson(rng, 2) + "}";
    default: // the identifier of any type, beside numbers out of range
        return R"({"n":)" + RandomJson(rng, 1) + R"(,"app_data":{"commercial_details_id":)" + RandomJson(rng, 2) +
               "}}";
    }
}

// The parse the plugin must make, as an oracle: the value, or
// nothing and why for text that is not JSON.
bool ParseAsJson(const std::string& text, picojson::value& value, std::string* error = nullptr)
{
    std::string message;
    try
    {
        picojson::parse(value, text.data(), text.data() + text.size(), &message);
    }
    catch (const std::overflow_error&)
    {
        message = "number out of range";
    }
    if (error != nullptr)
        *error = message;
    return message.empty();
}

// The level-4 lines that Init logs for the file's text, up to " near: ",
// and the identifier that it takes.
std::pair<Strings, std::optional<std::string>> InitOutcome(const std::string& text)
{
    const std::string init = "CBootstrap::_InitCommercialId: ";
    picojson::value value;
    std::string error;
    if (!ParseAsJson(text, value, &error))
        return {{"CBootstrap::_GetBootstrapData: Not json, " + error.substr(0, error.find(" near: ")),
                 init + "Get bootstrap data failed"},
                std::nullopt};
    if (!value.is<picojson::object>())
        return {{"CBootstrap::_GetBootstrapData: Not object", init + "Get bootstrap data failed"}, std::nullopt};
    const picojson::value& appData = value.get("app_data");
    if (!appData.is<picojson::object>())
        return {{init + "No app_data"}, std::nullopt};
    if (!appData.get("commercial_details_id").is<std::string>())
        return {{init + "No commercial_details_id in app_data"}, std::nullopt};
    return {{}, appData.get("commercial_details_id").get<std::string>()};
}

class HostileInputTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        host.config.Set(44, L"Desktop", L"PCPHOSTILE");
        host.config.Set(400, L"Desktop", folder.path + L"\\");
    }
    // The level-4 lines, each up to " near: ".
    Strings Errors() const
    {
        Strings lines = log.Messages("ERROR");
        for (std::string& line : lines)
            line = line.substr(0, line.find(" near: "));
        return lines;
    }

    const uint64_t seed = Seed();
    std::mt19937_64 rng{seed};
    LogCapture log;
    SettingsFolder folder{L"phi"};
    sim::Host host;
};

const std::string kBase = R"({"app_data":{"commercial_details_id":"C1","x":[1,2]},"other":{"k":"v"}})";
} // namespace

// Each input: a file, Init, and an update with a reply of the cloud.
TEST_F(HostileInputTest, InitAndUpdateTakeExactlyWhatIsUsable)
{
    const std::string commercialData = R"({"contacts":["a","b"],"n":1})";
    for (int input = 0; input < 2000 && !HasFailure(); ++input)
    {
        const std::string bytes = Mutate(rng, kBase);
        // Bodies beyond the 64 bytes reserved for them grow through the
        // plugin's memory manager; a NUL ends the reply. A failing status
        // with a body, and a descriptor that claims more or less than the
        // body holds.
        const std::string body = rng() % 3 == 0 ? RandomJson(rng, 3) : Mutate(rng, commercialData);
        sim::CloudAnswer answer(body, rng() % 8 == 0 ? 1 + static_cast<uint32_t>(rng() % 100) : 0);
        static const int64_t kSkews[] = {0, 0, -1, 1, 4096, -(1LL << 40)};
        answer.lengthSkew = kSkews[rng() % 6];
        SCOPED_TRACE("PCP_SEED=" + std::to_string(seed) + ", input " + std::to_string(input));
        folder.Write(bytes);
        host.connectIntegrator.SetAnswer(answer);
        log.Clear();
        CBootstrap bootstrap;
        ASSERT_EQ(bootstrap.Init(&host), 0u);
        const std::string text = AsReadInTextMode(bytes);
        const auto [errors, identifier] = InitOutcome(text);
        EXPECT_EQ(Errors(), errors) << ::testing::PrintToString(bytes);
        EXPECT_EQ(log.Count("INFO", "CBootstrap::_InitCommercialId: old commid: "), identifier ? 1u : 0u);
        EXPECT_EQ(bootstrap.IsCommercialIdDifferent("C1"), identifier != "C1");
        EXPECT_TRUE(!identifier || identifier->empty() || !bootstrap.IsCommercialIdDifferent(*identifier));
        EXPECT_EQ(folder.Read(), bytes) << "reading changes nothing";

        log.Clear();
        const bool updated = bootstrap.UpdateBootstrapData("C2");
        // Reported are a failing status, else what the file's second reading
        // finds wrong, and only as errors: a reply that is no object goes
        // unmentioned.
        EXPECT_EQ(Errors(), answer.error != 0 ? Strings{"CBootstrap::_GetCloudData: Perform cloud request failed. error=" +
                                                        std::to_string(answer.error)}
                            : errors.size() == 2 ? Strings{errors[0]}
                                                 : Strings{});
        EXPECT_EQ(log.Messages("WARN"), Strings{});
        EXPECT_EQ(log.Messages("INFO"), Strings{});
        EXPECT_EQ(host.connectIntegrator.Calls().back().faults, Strings{});
        picojson::value reply, before;
        EXPECT_EQ(updated, answer.error == 0 && ParseAsJson(body.substr(0, body.find('\0')), reply) &&
                               reply.is<picojson::object>())
            << ::testing::PrintToString(body);
        EXPECT_EQ(bootstrap.IsCommercialIdDifferent("C2"), !updated);
        if (!updated)
        {
            EXPECT_EQ(folder.Read(), bytes) << "a rejected reply changes nothing";
            continue;
        }
        // The file's object, or a new one: app_data an object with the
        // identifier beside its other members, the reply as commercial_data,
        // every other member as it was.
        picojson::object document;
        if (ParseAsJson(text, before) && before.is<picojson::object>())
            document = before.get<picojson::object>();
        picojson::object appData;
        if (document["app_data"].is<picojson::object>())
            appData = document["app_data"].get<picojson::object>();
        appData["commercial_details_id"] = picojson::value("C2");
        document["app_data"] = picojson::value(appData);
        document["commercial_data"] = reply;
        EXPECT_EQ(folder.Read(), picojson::value(document).serialize());
    }
}

TEST_F(HostileInputTest, FiftyMebibytesOfValidJsonAreReadAndKeptWhole)
{
    // The identifier after 50 MiB of other members.
    std::string big = R"({"other":{"k":"v"},"bulk":[)";
    const std::string item = R"({"name":"contact","n":12345,"tags":["a","b"]},)";
    size_t items = 1;
    for (; big.size() < (50u << 20); ++items)
        big += item;
    big += R"(0],"app_data":{"commercial_details_id":"C9"}})";
    folder.Write(big);
    for (const bool accepted : {false, true})
    {
        SCOPED_TRACE(accepted ? "a reply that is an object" : "a 50 MiB reply that is a string");
        CBootstrap bootstrap;
        ASSERT_EQ(bootstrap.Init(&host), 0u);
        EXPECT_FALSE(bootstrap.IsCommercialIdDifferent("C9"));
        host.connectIntegrator.SetAnswer(
            {accepted ? std::string(R"({"contacts":["z"]})") : "\"" + std::string(50u << 20, 'b') + "\""});
        EXPECT_EQ(bootstrap.UpdateBootstrapData("C2"), accepted);
        bootstrap.UnInit();
        if (!accepted)
        {
            EXPECT_TRUE(folder.Read() == big) << "a rejected reply changes nothing";
            continue;
        }
        picojson::value written;
        ASSERT_TRUE(ParseAsJson(*folder.Read(), written));
        EXPECT_EQ(written.get("app_data").serialize(), R"({"commercial_details_id":"C2"})");
        EXPECT_EQ(written.get("commercial_data").serialize(), R"({"contacts":["z"]})");
        EXPECT_EQ(written.get("bulk").get<picojson::array>().size(), items);
    }
}

TEST_F(HostileInputTest, RecordsWithoutTerminatorsAreNeverReadPastTheirEnd)
{
    const std::wstring subscriptionKey = L".DEFAULT\\SOFTWARE\\Sub_ID_PCPHOSTILE";
    RegistryScratch registry;
    registry.Forget(HKEY_USERS, subscriptionKey);
    registry.Forget(HKEY_LOCAL_MACHINE, L"Software\\PcpHostile");
    ConfigureProduct(host, L"PCPHOSTILE", L"PcpHostile", L"Software\\PcpHostile\\Product");
    PluginModule module;
    ASSERT_TRUE(module.Loaded());
    IServPlugin* plugin = module.Create();
    ASSERT_EQ(plugin->Init(&host), 0u);
    ASSERT_EQ(plugin->Start(), 0u);
    ASSERT_TRUE(host.WaitIdle());
    for (int input = 0; input < 500 && !HasFailure(); ++input)
    {
        SCOPED_TRACE("PCP_SEED=" + std::to_string(seed) + ", record " + std::to_string(input));
        SubscriptionData record;
        SubscriptionFields& fields = record;
        // Every byte of the fixed part, texts included, not zero.
        auto* bytes = reinterpret_cast<unsigned char*>(&fields);
        for (size_t i = 0; i < sizeof(SubscriptionFields); ++i)
            bytes[i] = static_cast<unsigned char>(1 + rng() % 255);
        record.Valid = rng() % 2 == 0;
        record.OpaqueFlag1 = rng() % 2 == 0;
        record.OpaqueFlag2 = rng() % 2 == 0;
        const size_t features = rng() % 50 == 0 ? 100000 : rng() % 20;
        for (size_t i = 0; i < features; ++i)
            record.Features.Append(static_cast<SubscriptionFeatures>(rng()));
        host.subscription.Deliver(record);
        ASSERT_TRUE(host.WaitIdle());
        if (record.ServerProductType != 0 || record.StatusCode != 0)
        {
            EXPECT_EQ(registry.Dword(HKEY_USERS, subscriptionKey, L"ServerProductType"),
                      static_cast<DWORD>(record.ServerProductType));
        }
    }
    plugin->Stop();
    plugin->UnInit();
    module.Destroy(plugin);
    ExpectNothingLeft(host);
}
