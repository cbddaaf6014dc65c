// The account's subscription record, filled by the host's subscription client
// and shared with it: field order, widths and natural alignment are fixed.
// Both modules build the record as these fields followed by a list of
// features (host/list.h) at kSubscriptionFeaturesOffset.
#pragma once

#include <stddef.h>
#include <stdint.h>

// A feature of the subscription; the plugin only copies the list of them.
enum SubscriptionFeatures : int32_t
{
};

constexpr size_t kSubscriptionTextChars = 200;

// The fields of SubscriptionData in front of its list of features, at
// offset 0 of the record.
struct SubscriptionFields
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
};

constexpr size_t kSubscriptionFeaturesOffset = 3648;
constexpr size_t kSubscriptionDataSize = 3672;

static_assert(sizeof(SubscriptionFeatures) == 4, "a 32-bit enumeration");
static_assert(sizeof(wchar_t) == 2, "wide texts are 16-bit");
static_assert(offsetof(SubscriptionFields, KeyType) == 0, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, ProductType) == 4, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, ServerProductType) == 8, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, StatusCode) == 12, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueInt1) == 16, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, Valid) == 20, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueInt2) == 24, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueInt3) == 28, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, DaysLeft) == 32, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueInt4) == 36, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueInt5) == 40, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, AccountId) == 44, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueText1) == 244, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueText2) == 444, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueWide1) == 644, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueWide2) == 1044, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueWide3) == 1444, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueWide4) == 1844, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueWide5) == 2244, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, BundleId) == 2644, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, CommercialId) == 2844, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueText3) == 3044, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueFlag1) == 3244, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueWide6) == 3246, "layout shared with the host");
static_assert(offsetof(SubscriptionFields, OpaqueFlag2) == 3646, "layout shared with the host");
static_assert(sizeof(SubscriptionFields) <= kSubscriptionFeaturesOffset, "the list follows the fields");
