// The list against its binary layout and table of operations, as the host
// reads and calls it, and the subscription record that carries a list.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <random>

#include "config/subscription_data.h"

namespace
{
using List = qm::List<std::uint32_t>;
using Model = std::list<std::uint32_t>;
enum ListSlot { kAppend, kPrepend, kLast, kLastConst, kGetLast, kFirst, kFirstConst, kGetFirst, kErase, kConstEnum,
                kEnum, kClear, kCount };
enum EnumSlot { kHasMore, kNext, kCurrent, kRelease, kReset };

// The values as the host reads them, checking the backward links and the
// size field on the way.
Model Values(const List& list)
{
    const qm::ListNode<std::uint32_t>* head;
    std::int64_t size;
    std::memcpy(&head, reinterpret_cast<const char*>(&list) + 8, sizeof head);
    std::memcpy(&size, reinterpret_cast<const char*>(&list) + 16, sizeof size);
    Model values;
    const auto* node = head;
    for (; node->next != head; node = node->next)
    {
        EXPECT_EQ(node, node->next->previous);
        values.push_back(node->next->value);
    }
    EXPECT_EQ(node, head->previous);
    EXPECT_EQ(static_cast<std::int64_t>(values.size()), size);
    return values;
}

// Calls a slot of the object's table as another module does.
template <class R, class... A>
R Slot(void* object, int slot, A... args)
{
    using Fn = R (*)(void*, A...);
    return (*static_cast<Fn**>(object))[slot](object, args...);
}

// Random operations, through the table where they have a slot, against a
// model; after each, everything the host can see. Erasing at every position
// (the sentinel included) and with another list's enumerator, copies that
// share no node, assignment that reuses the target's nodes and assignment of
// a list to itself.
TEST(ListTest, RandomOperationsThroughTheTableMatchAModel)
{
    constexpr unsigned kSeed = 20240611;
    SCOPED_TRACE(testing::Message() << "seed " << kSeed);
    std::mt19937 random(kSeed);
    List list, other;
    Model model;
    for (int step = 0; step < 600 && !HasFailure(); ++step)
    {
        SCOPED_TRACE(testing::Message() << "step " << step);
        const std::uint32_t value = random();
        const std::size_t at = random() % (model.size() + 1);
        const std::uint32_t* const first = list.First();
        const int operation = random() % 6;
        switch (operation)
        {
        case kAppend:
        case kPrepend:
            EXPECT_EQ(Slot<Status>(&list, operation, &value), 0u);
            model.insert(operation == kAppend ? model.end() : model.begin(), value);
            break;
        case 2: // the enumerator then stands on the element behind
        {
            void* position = Slot<void*>(&list, kEnum);
            for (std::size_t i = 0; i < at; ++i)
                Slot<void>(position, kNext);
            Slot<void>(&list, kErase, position);
            const auto behind = at < model.size() ? model.erase(std::next(model.begin(), at)) : model.end();
            EXPECT_EQ(Slot<bool>(position, kHasMore) ? *Slot<std::uint32_t*>(position, kCurrent) : 0xDEAD,
                      behind != model.end() ? *behind : 0xDEAD);
            Slot<void>(position, kReset);
            EXPECT_EQ(Slot<bool>(position, kHasMore) ? *Slot<std::uint32_t*>(position, kCurrent) : 0xDEAD,
                      model.empty() ? 0xDEAD : model.front());
            Slot<void>(position, kRelease);
            break;
        }
        case 3:
        {
            other.Append(value);
            void* foreign = Slot<void*>(&other, kEnum);
            Slot<void>(&list, kErase, foreign);
            Slot<void>(foreign, kRelease);
            EXPECT_EQ(Values(other), Model{value});
            List copy(list);
            EXPECT_EQ(Values(copy), model);
            copy.Clear();
            other.Clear();
            break;
        }
        case 4: // from a list of up to five values
            model.clear();
            for (std::size_t i = random() % 6; i > 0; --i)
                other.Append(model.emplace_back(random()));
            list = other;
            other.Clear();
            EXPECT_TRUE(first == nullptr || model.empty() || list.First() == first) << "the first node reused";
            break;
        default:
            if (at == 0)
            {
                Slot<void>(&list, kClear);
                model.clear();
            }
            list = *&list;
            EXPECT_EQ(list.First(), model.empty() ? nullptr : first);
        }

        EXPECT_EQ(Values(list), model);
        EXPECT_EQ(Slot<std::int64_t>(&list, kCount), static_cast<std::int64_t>(model.size()));
        std::uint32_t ends[2] = {0xDEAD, 0xDEAD}; // untouched when empty
        EXPECT_EQ(Slot<Status>(&list, kGetFirst, &ends[0]), model.empty() ? 1168u : 0u);
        EXPECT_EQ(Slot<Status>(&list, kGetLast, &ends[1]), model.empty() ? 1168u : 0u);
        EXPECT_EQ(Model(ends, ends + 2), (model.empty() ? Model{0xDEAD, 0xDEAD} : Model{model.front(), model.back()}));
        for (const int slot : {kFirst, kFirstConst, kLast, kLastConst})
        {
            const auto* end = Slot<const std::uint32_t*>(&list, slot);
            EXPECT_EQ(end ? *end : 0xDEAD, model.empty() ? 0xDEAD : slot < kGetLast ? model.back() : model.front());
        }
        void* walk = Slot<void*>(&list, kConstEnum); // at elements, then Reset and all
        Model walked, expected(model.begin(), std::next(model.begin(), std::min(at, model.size())));
        for (std::size_t n = 0; n < at && Slot<bool>(walk, kHasMore); ++n, Slot<void>(walk, kNext))
            walked.push_back(*Slot<const std::uint32_t*>(walk, kCurrent));
        for (Slot<void>(walk, kReset); Slot<bool>(walk, kHasMore); Slot<void>(walk, kNext))
            walked.push_back(*Slot<const std::uint32_t*>(walk, kCurrent));
        expected.insert(expected.end(), model.begin(), model.end());
        EXPECT_EQ(walked, expected);
        Slot<void>(walk, kRelease);
    }
}

TEST(SubscriptionRecord, FixedTextsStayWithinTheirArrays)
{
    SubscriptionData record;
    EXPECT_EQ(FixedText(record.AccountId), "");
    for (char& c : record.AccountId)
        c = 'a'; // no terminator at all
    record.OpaqueText1[0] = 'X';
    EXPECT_EQ(FixedText(record.AccountId), std::string(kSubscriptionTextChars, 'a'));
    for (const std::size_t length : {kSubscriptionTextChars - 1, kSubscriptionTextChars, std::size_t{500}})
    {
        SetFixedText(record.CommercialId, std::string(length, 'c'));
        EXPECT_EQ(FixedText(record.CommercialId), std::string(kSubscriptionTextChars - 1, 'c')) << length;
    }
}
} // namespace
