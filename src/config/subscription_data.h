// The account's subscription record, filled by the host's subscription client
// and shared with it: field order, widths and natural alignment are fixed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "support/list.h"

// A feature of the subscription; the plugin only copies the list of them.
enum SubscriptionFeatures : int32_t
{
};

constexpr size_t kSubscriptionTextChars = 200;

struct SubscriptionData
{
    int32_t KeyType = 0;           // read by the survey only
    int32_t ProductType = 0;       // the local product type
    int32_t ServerProductType = 0; // the type the server assigns; 0: unknown
    uint32_t StatusCode = 0;
    uint32_t OpaqueInt1 = 0;
    bool Valid = false;
    uint32_t OpaqueInt2 = 0;
    uint32_t OpaqueInt3 = 0;
    uint32_t DaysLeft = 0;
    uint32_t OpaqueInt4 = 0;
    uint32_t OpaqueInt5 = 0;
    char AccountId[kSubscriptionTextChars] = {}; // empty while no account is attached
    char OpaqueText1[kSubscriptionTextChars] = {};
    char OpaqueText2[kSubscriptionTextChars] = {};
    wchar_t OpaqueWide1[kSubscriptionTextChars] = {};
    wchar_t OpaqueWide2[kSubscriptionTextChars] = {};
    wchar_t OpaqueWide3[kSubscriptionTextChars] = {};
    wchar_t OpaqueWide4[kSubscriptionTextChars] = {};
    wchar_t OpaqueWide5[kSubscriptionTextChars] = {};
    char BundleId[kSubscriptionTextChars] = {};
    char CommercialId[kSubscriptionTextChars] = {};
    char OpaqueText3[kSubscriptionTextChars] = {};
    bool OpaqueFlag1 = false;
    wchar_t OpaqueWide6[kSubscriptionTextChars] = {};
    bool OpaqueFlag2 = false;
    // Copied deeply with the record: two records never share a node.
    qm::List<SubscriptionFeatures> Features;
};

// The text of a fixed array up to its NUL, or the whole array when the host
// left no NUL in it: never read past the array.
template <size_t N>
std::string FixedText(const char (&text)[N])
{
    size_t length = 0;
    while (length < N && text[length] != '\0')
        ++length;
    return std::string(text, length);
}

// Copies text into a fixed array, cut so that the NUL fits.
template <size_t N>
void SetFixedText(char (&target)[N], const std::string& text)
{
    const size_t length = text.size() < N ? text.size() : N - 1;
    text.copy(target, length);
    target[length] = '\0';
}

// offsetof on a record holding a list (a class with a table of operations)
// is what the layout check needs; GCC warns about it, MSVC does not.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
#endif
static_assert(sizeof(SubscriptionFeatures) == 4, "a 32-bit enumeration");
static_assert(sizeof(wchar_t) == 2, "wide texts are 16-bit");
static_assert(offsetof(SubscriptionData, KeyType) == 0, "layout shared with the host");
static_assert(offsetof(SubscriptionData, ProductType) == 4, "layout shared with the host");
static_assert(offsetof(SubscriptionData, ServerProductType) == 8, "layout shared with the host");
static_assert(offsetof(SubscriptionData, StatusCode) == 12, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueInt1) == 16, "layout shared with the host");
static_assert(offsetof(SubscriptionData, Valid) == 20, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueInt2) == 24, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueInt3) == 28, "layout shared with the host");
static_assert(offsetof(SubscriptionData, DaysLeft) == 32, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueInt4) == 36, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueInt5) == 40, "layout shared with the host");
static_assert(offsetof(SubscriptionData, AccountId) == 44, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueText1) == 244, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueText2) == 444, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueWide1) == 644, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueWide2) == 1044, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueWide3) == 1444, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueWide4) == 1844, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueWide5) == 2244, "layout shared with the host");
static_assert(offsetof(SubscriptionData, BundleId) == 2644, "layout shared with the host");
static_assert(offsetof(SubscriptionData, CommercialId) == 2844, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueText3) == 3044, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueFlag1) == 3244, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueWide6) == 3246, "layout shared with the host");
static_assert(offsetof(SubscriptionData, OpaqueFlag2) == 3646, "layout shared with the host");
static_assert(offsetof(SubscriptionData, Features) == 3648, "layout shared with the host");
static_assert(sizeof(SubscriptionData) == 3672, "layout shared with the host");
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
