// The account's subscription record as this module holds it: the fields the
// host shares (host/subscription_record.h) and this module's list of
// features, copied deeply with the record so that two records never share a
// node.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "host/subscription_record.h"
#include "support/list.h"

struct SubscriptionData : SubscriptionFields
{
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
static_assert(offsetof(SubscriptionData, Features) == kSubscriptionFeaturesOffset, "layout shared with the host");
static_assert(sizeof(SubscriptionData) == kSubscriptionDataSize, "layout shared with the host");
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
