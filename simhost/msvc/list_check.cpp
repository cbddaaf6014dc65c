#include "simhost/msvc/list_check.h"

#include "simhost/msvc/host_objects.h"

namespace msvc
{
namespace
{
using Feature = SubscriptionFeatures;

Feature F(int value)
{
    return static_cast<Feature>(value);
}

class Checks
{
public:
    void That(bool condition, const char* what)
    {
        if (!condition)
        {
            ++failures;
            Journal("list check failed:");
            Journal(what);
        }
    }
    int failures = 0;
};
} // namespace

int ExerciseList(qm::IList<Feature>& list)
{
    Checks check;
    const qm::IList<Feature>& constant = list;

    list.Clear();
    check.That(list.Count() == 0, "Count of an empty list");
    check.That(list.First() == nullptr && list.Last() == nullptr, "First and Last of an empty list");
    check.That(constant.First() == nullptr && constant.Last() == nullptr, "const First and Last of an empty list");
    Feature untouched = F(42);
    check.That(list.GetFirst(untouched) == qm::kListNotFound && untouched == F(42), "GetFirst of an empty list");
    check.That(list.GetLast(untouched) == qm::kListNotFound && untouched == F(42), "GetLast of an empty list");

    check.That(list.Append(F(1)) == 0, "Append");
    check.That(list.Prepend(F(2)) == 0, "Prepend");
    check.That(list.Count() == 2, "Count after two");
    check.That(list.First() != nullptr && *list.First() == F(2), "First");
    check.That(list.Last() != nullptr && *list.Last() == F(1), "Last");
    check.That(constant.First() != nullptr && *constant.First() == F(2), "const First");
    check.That(constant.Last() != nullptr && *constant.Last() == F(1), "const Last");
    Feature value = F(0);
    check.That(list.GetFirst(value) == 0 && value == F(2), "GetFirst");
    check.That(list.GetLast(value) == 0 && value == F(1), "GetLast");

    qm::IListEnum<Feature>* walk = list.Enum();
    check.That(walk != nullptr, "Enum");
    if (walk != nullptr)
    {
        check.That(walk->HasMore() && *walk->Current() == F(2), "Enum starts at the first");
        walk->Next();
        check.That(walk->HasMore() && *walk->Current() == F(1), "Next");
        walk->Next();
        check.That(!walk->HasMore(), "HasMore at the end");
        walk->Reset();
        check.That(walk->HasMore() && *walk->Current() == F(2), "Reset");
        list.Erase(*walk);
        check.That(list.Count() == 1 && walk->HasMore() && *walk->Current() == F(1), "Erase moves on");
        list.Erase(*walk);
        check.That(list.Count() == 0 && !walk->HasMore(), "Erase of the last leaves the sentinel");
        list.Erase(*walk);
        check.That(list.Count() == 0, "Erase at the sentinel");
        walk->Release();
    }

    check.That(list.Append(F(3)) == 0 && list.Append(F(4)) == 0, "Append again");
    qm::IConstListEnum<Feature>* read = constant.ConstEnum();
    check.That(read != nullptr, "ConstEnum");
    if (read != nullptr)
    {
        int seen = 0;
        for (; read->HasMore(); read->Next())
            seen = seen * 10 + static_cast<int>(*read->Current());
        check.That(seen == 34, "ConstEnum walks in order");
        // The enumerator's destructor slot, as delete reaches it.
        delete read;
    }
    if (qm::IListEnum<Feature>* other = list.Enum())
        delete other;

    list.Clear();
    check.That(list.Count() == 0 && list.First() == nullptr, "Clear");
    list.Append(F(8));
    list.Append(F(9));
    list.Prepend(F(7));
    check.That(list.Count() == 3, "final content");
    return check.failures;
}
} // namespace msvc
