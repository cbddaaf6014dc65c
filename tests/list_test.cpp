// The list against its binary layout and table of operations, as the host
// reads and calls it.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/list.h"

namespace
{
using Node = qm::ListNode<std::uint32_t>;
using List = qm::List<std::uint32_t>;
using Sequence = std::vector<std::uint32_t>;

// The values as the host reads them, checking the backward links and the
// size field on the way.
Sequence Values(const List& list)
{
    const char* raw = reinterpret_cast<const char*>(&list);
    const Node* head;
    std::int64_t size;
    std::memcpy(&head, raw + 8, sizeof head);
    std::memcpy(&size, raw + 16, sizeof size);
    Sequence values;
    const Node* node = head;
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

// Every operation through its slot: a table out of order fails here.
TEST(ListTest, OperationsThroughTheTable)
{
    List list;
    std::uint32_t out = 7;
    EXPECT_EQ(nullptr, Slot<std::uint32_t*>(&list, 2));               // Last
    EXPECT_EQ(nullptr, Slot<const std::uint32_t*>(&list, 6));         // First const
    EXPECT_EQ(1168u, Slot<Status>(&list, 4, &out));                   // GetLast
    EXPECT_EQ(1168u, Slot<Status>(&list, 7, &out));                   // GetFirst
    EXPECT_EQ(7u, out);
    void* e = Slot<void*>(&list, 9);                                  // ConstEnum
    EXPECT_FALSE(Slot<bool>(e, 0));                                   // HasMore
    Slot<void>(e, 3);                                                 // Release

    const std::uint32_t one = 1, two = 2;
    EXPECT_EQ(0u, Slot<Status>(&list, 0, &one));                      // Append
    EXPECT_EQ(0u, Slot<Status>(&list, 1, &two));                      // Prepend
    EXPECT_EQ(Sequence({2, 1}), Values(list));
    EXPECT_EQ(1u, *Slot<const std::uint32_t*>(&list, 3));             // Last const
    EXPECT_EQ(0u, Slot<Status>(&list, 4, &out));
    EXPECT_EQ(1u, out);
    EXPECT_EQ(2u, *Slot<std::uint32_t*>(&list, 5));                   // First
    EXPECT_EQ(0u, Slot<Status>(&list, 7, &out));
    EXPECT_EQ(2u, out);

    e = Slot<void*>(&list, 10);                                       // Enum
    Slot<void>(e, 1);                                                 // Next
    EXPECT_EQ(1u, *Slot<std::uint32_t*>(e, 2));                       // Current
    Slot<void>(&list, 8, e);                                          // Erase the last element
    EXPECT_FALSE(Slot<bool>(e, 0));
    EXPECT_EQ(Sequence({2}), Values(list));
    Slot<void>(e, 4);                                                 // Reset
    EXPECT_EQ(2u, *Slot<std::uint32_t*>(e, 2));
    Slot<void>(e, 3);
    EXPECT_EQ(1, Slot<std::int64_t>(&list, 12));                      // Count
    Slot<void>(&list, 11);                                            // Clear
    EXPECT_EQ(Sequence{}, Values(list));
}

TEST(ListTest, CopiesShareNoNode)
{
    List source;
    source.Append(1);
    source.Append(2);
    List copy(source);
    *copy.First() = 9;
    source.Clear();
    EXPECT_EQ(Sequence({9, 2}), Values(copy));
}

// Marks a value assigned into a reused node; a new node gets a copy.
struct Tracked
{
    bool assigned = false;

    Tracked() = default;
    Tracked(const Tracked&) {}
    Tracked& operator=(const Tracked&)
    {
        assigned = true;
        return *this;
    }
};

TEST(ListTest, AssignmentReusesNodesAndLeavesItselfAlone)
{
    qm::List<Tracked> target, source;
    const Tracked value;
    for (int i = 0; i < 3; ++i)
        target.Append(value);
    source.Append(value);
    target = source; // one node reused, two freed
    EXPECT_EQ(1, target.Count());
    EXPECT_TRUE(target.First()->assigned);
    source.Append(value);
    const qm::List<Tracked>& self = target = source; // one reused, one added
    target = self; // would mark the new node assigned
    EXPECT_EQ(2, target.Count());
    EXPECT_TRUE(target.First()->assigned);
    EXPECT_FALSE(target.Last()->assigned);
}
} // namespace
