// Interface identifiers: 16 bytes as two unsigned 64-bit words.
#pragma once

#include <stdint.h>

struct InterfaceId
{
    uint64_t first;
    uint64_t second;
};

constexpr bool operator==(const InterfaceId& a, const InterfaceId& b)
{
    return a.first == b.first && a.second == b.second;
}

constexpr bool operator!=(const InterfaceId& a, const InterfaceId& b)
{
    return !(a == b);
}

static_assert(sizeof(InterfaceId) == 16, "InterfaceId is two 64-bit words");

namespace ids
{
// The two identifiers under which the plugin object is created and answers
// QueryInterface (IServPlugin and its base IQmBaseInterface).
constexpr InterfaceId ServPluginA{0x983304d0414e2323ull, 0xe952825d7c884176ull};
constexpr InterfaceId ServPluginB{0xbc90fca366551ab3ull, 0x514be292f7c5425full};

// Components asked of the component manager by name.
constexpr InterfaceId SessionChangeClient{0xbcf5aab0c2184435ull, 0xf76c34e78b284cefull};
constexpr InterfaceId ServConfig{0x666b97245666c9d0ull, 0xf666c93d61084666ull};
constexpr InterfaceId ServiceStatusClient{0xa89ab13229b7425bull, 0x0946219c19554d67ull};
constexpr InterfaceId ProductAgentCommClient{0x953e89c23b231fe2ull, 0x95428989b5454938ull};
constexpr InterfaceId ConnectIntegrator{0x8142f3da949015e7ull, 0xbd6a346795594961ull};

// Asked by QueryInterface of "productagentcommclient".
constexpr InterfaceId ProductAgentCommClientAsync{0x80142c23e16295e8ull, 0x7281b58e546247e1ull};

// "SubscriptionCommClient" is kept in its text form a-b-c-d-e and scanned when
// the plugin starts; SubscriptionCommClient below is the same value computed.
constexpr const char* SubscriptionCommClientText = "86b78648-dc8a-4b4a-bd7c-74824ec8b7d4";
constexpr InterfaceId SubscriptionCommClient{0xbd7c74824ec8b7d4ull, 0x86b78648dc8a4b4aull};
} // namespace ids

// Builds an identifier from the five groups of its text form:
// first word = d * 2^48 + e, second word = (a * 2^16 + b) * 2^16 + c.
constexpr InterfaceId InterfaceIdFromGroups(uint64_t a, uint64_t b, uint64_t c, uint64_t d, uint64_t e)
{
    return InterfaceId{(d << 48) + e, (((a << 16) + b) << 16) + c};
}

static_assert(InterfaceIdFromGroups(0x86b78648, 0xdc8a, 0x4b4a, 0xbd7c, 0x74824ec8b7d4) == ids::SubscriptionCommClient,
              "text form and two-word form of SubscriptionCommClient agree");
