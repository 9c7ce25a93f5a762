// Containers: order, ownership and result codes.

#include "foundation/foundation.h"
#include "tests/foundation/Owned.h"

namespace kvx::test {
namespace {

// A list element that counts its kind's living objects.
struct Counted : CVekListable {
    explicit Counted(int value) : number(value) { ++living; }
    Counted(const Counted& other) : CVekListable(other), number(other.number) { ++living; }
    Counted& operator=(const Counted&) = delete;
    ~Counted() override { --living; }
    CVekListable* RLTargetDeepCopy(const CVekListable* source) override {
        const auto& original = dynamic_cast<const Counted&>(*source);
        return original.number < 0 ? nullptr : new Counted(original);  // negative ones refuse
    }
    int number;
    static inline int living = 0;
};

using Numbers = std::vector<int>;
using Pointees = std::vector<void*>;

template <class Element, class Value>
std::vector<Value> valuesIn(const CVekDoubleList& list, Value (*valueOf)(Element&)) {
    std::vector<Value> values;
    for (auto* element = list.RDLHead(); element != nullptr; element = list.RDLGetNext(element)) {
        values.push_back(valueOf(dynamic_cast<Element&>(*element)));
    }
    return values;
}

Numbers numbersIn(const CVekDoubleList& list) {
    return valuesIn<Counted, int>(list, [](Counted& element) { return element.number; });
}

// The pointees of an iterator, which is released.
Pointees pointees(CVekDoubleList* iterator) {
    const std::unique_ptr<CVekDoubleList> list(iterator);
    return valuesIn<CVekPointer, void*>(*list, [](CVekPointer& one) { return one.RPData(); });
}

TEST(DoubleList, OwnsItsElementsKeepsTheirOrderAndDeletesNoOther) {
    {
        CVekDoubleList list;
        std::vector<Counted*> elements;
        for (int i = 0; i < 4; ++i) {
            elements.push_back(new Counted(i));
            EXPECT_EQ(list.RDLAddToListEnd(elements.back()), 1);
        }
        EXPECT_EQ(list.RDLAddToListEnd(elements[0]), -220552);  // stands in a list already
        EXPECT_EQ(list.RDLAddToListEnd(nullptr), -220552);
        EXPECT_EQ(list.RDLDeleteListable(elements[0]), 1);
        EXPECT_EQ(list.RDLDeleteListable(elements[3]), 1);
        EXPECT_EQ(numbersIn(list), (Numbers{1, 2}));
        delete elements[1];  // leaves the list by itself
        EXPECT_EQ(numbersIn(list), Numbers{2});
        EXPECT_EQ(list.RDLLength(), 1);

        Counted stranger(5);
        EXPECT_EQ(list.RDLAttemptToDeleteListable(&stranger), -220547);
        EXPECT_EQ(list.RDLDeleteListable(&stranger), -220547);
        EXPECT_EQ(list.RDLAttemptToDeleteListable(elements[2]), 1);
        EXPECT_EQ(list.RDLAttemptToDeleteListable(elements[2]), -220547);  // dead, and not read
        EXPECT_EQ(list.RDLHead(), nullptr);
        list.RDLAddToListEnd(new Counted(6));
    }
    EXPECT_EQ(Counted::living, 0);
}

TEST(DoubleList, CopiesDeeplyAndLeavesOutWhatRefuses) {
    CVekDoubleList list;
    for (const int number : {1, -2, 3}) list.RDLAddToListEnd(new Counted(number));
    CVekDoubleList copy(list);
    CVekDoubleList assigned;
    assigned.RDLAddToListEnd(new Counted(9));
    assigned = list;
    dynamic_cast<Counted*>(list.RDLHead())->number = 7;
    EXPECT_EQ(numbersIn(copy), (Numbers{1, 3}));
    EXPECT_EQ(numbersIn(assigned), (Numbers{1, 3}));
    EXPECT_EQ(Counted::living, 7);
    auto* taken = list.RDLHead();
    EXPECT_EQ(list.RDLTakeListable(taken), 1);
    EXPECT_EQ(copy.RDLAddToListEnd(taken), 1);
    EXPECT_EQ(numbersIn(copy), (Numbers{1, 3, 7}));

    struct Holder : Counted {
        Holder() : Counted(0) { inner.RDLAddToListEnd(new Counted(5)); }
        CVekDoubleList inner;
    };
    auto* holder = new Holder;
    list.RDLAddToListEnd(holder);
    list = holder->inner;  // a list that it holds
    EXPECT_EQ(numbersIn(list), Numbers{5});
}

TEST(StackAndBag, GiveThePushedInOrderAndTheBottomFirst) {
    int a = 0;
    int b = 0;
    int c = 0;
    CVekStack stack(-1);
    EXPECT_EQ(stack.RSPush(&a), 1);
    EXPECT_EQ(stack.RSPush(&b), 1);
    EXPECT_EQ(stack.RSPushBottom(&c), 1);
    EXPECT_EQ(stack.RSLength(), 3);
    EXPECT_EQ(stack.RSPop(), &c);
    EXPECT_EQ(stack.RSPop(), &a);
    EXPECT_EQ(stack.RSPop(), &b);
    EXPECT_EQ(stack.RSPop(), nullptr);

    CVekStack bounded(1);
    bounded.RSPush(&a);
    EXPECT_EQ(bounded.RSPush(&b), -220439);
    EXPECT_EQ(bounded.RSPushBottom(&b), -220439);

    CVekBag bag;
    bag.RBAdd(&a);
    bag.RBAdd(nullptr);
    EXPECT_EQ(bag.RBSize(), 2U);
    EXPECT_EQ(bag.RBGet(0), &a);
    EXPECT_EQ(bag.RBGet(2), nullptr);
}

TEST(AtomVector, DeletesWhatItStillHolds) {
    auto vector = std::make_unique<CVekAtomVector>(0);
    auto* kept = new CVekAtom("kept");
    EXPECT_EQ(vector->RAVAddToEnd(kept), 1);
    EXPECT_EQ(vector->RAVMakeSpace(1000), 1);
    EXPECT_EQ(vector->RAVSize(), 1U);
    EXPECT_EQ(vector->RAVAddToEnd(nullptr), -220402);
    CVekAtomVector copy(*vector);
    vector->RAVReset();
    EXPECT_EQ(vector->RAVSize(), 0U);
    vector->RAVAddToEnd(new CVekAtom("deleted with the vector"));
    vector.reset();
    EXPECT_STREQ(kept->RAString(), "kept");
    delete kept;
    EXPECT_STREQ(copy.RAVGetValue(0)->RAString(), "kept");
    EXPECT_EQ(copy.RAVGetValue(1), nullptr);
}

TEST(HashListAndStore, RefuseAKeyThatIsThere) {
    int first = 0;
    int second = 0;
    CVekHashList list(5000, FALSE);
    CVekPointer refused(&second);
    EXPECT_EQ(list.RHLAdd("key", new CVekPointer(&first)), 1);
    EXPECT_EQ(list.RHLAdd("key", &refused), -220566);
    EXPECT_EQ(list.RHLGet("key")->RPData(), &first);
    EXPECT_EQ(list.RHLAdd(0, new CVekPointer(&second)), 1);
    EXPECT_EQ(list.RHLAdd(0UL, &refused), -220566);
    EXPECT_EQ(list.RHLGet(0)->RPData(), &second);
    EXPECT_EQ(list.RHLGet("0"), nullptr);
    EXPECT_EQ(list.RHLAdd(static_cast<const char*>(nullptr), &refused), -220552);
    EXPECT_EQ(list.RHLAdd("other", nullptr), -220552);

    CVekHashStore store(50, FALSE, TRUE, 500);
    EXPECT_EQ(store.RHSRetrieveObject(10), nullptr);
    EXPECT_EQ(store.RHSAddObjectAt(10, nullptr), 1);
    ASSERT_NE(store.RHSRetrieveObject(10), nullptr);
    EXPECT_EQ(store.RHSRetrieveObject(10)->RHNKey(), 10U);
    EXPECT_EQ(store.RHSAddObjectAt(10, &store), -220566);
    EXPECT_EQ(store.RHSRetrieveObject(10)->RHNObject(), nullptr);
}

TEST(HashList, IteratesInTheOrderOfAddingAndDeletesOnlyHolders) {
    std::vector<int> values(2000);
    CVekHashList list(-1, FALSE);
    Pointees expected;
    for (std::size_t i = 0; i < values.size(); ++i) {
        list.RHLAdd(std::to_string(i * 7919 % 2000).c_str(), new CVekPointer(&values[i]));
        expected.push_back(&values[i]);
    }
    EXPECT_EQ(pointees(list.RHLIterator()), expected);
    CVekPointer foreign(&values[0]);
    EXPECT_EQ(list.RHLDelete("0", &foreign), -220547);
    EXPECT_EQ(list.RHLDelete("0", list.RHLGet("0")), 1);
    EXPECT_EQ(list.RHLDelete("0", &foreign), -220547);
    expected.erase(expected.begin());
    EXPECT_EQ(pointees(list.RHLIterator()), expected);
    EXPECT_EQ(list.RHLLength(), 1999);
}

TEST(TreeList, KeepsUniqueKeysUnique) {
    int a = 0;
    int b = 0;
    CVekTreeList list(false);
    CVekPointer refused(&b);
    EXPECT_EQ(list.RTLAdd("key", static_cast<void*>(&a)), 1);
    EXPECT_EQ(list.RTLAdd("key", &refused), -220566);
    EXPECT_EQ(list.RTLAdd("key", static_cast<void*>(&b)), -220566);
    EXPECT_EQ(list.RTLAdd(-4, nullptr), 1);  // null is a value
    ASSERT_NE(list.RTLGet(-4), nullptr);
    EXPECT_EQ(list.RTLGet(-4)->RPData(), nullptr);
    EXPECT_EQ(list.RTLGet("key")->RPData(), &a);
    EXPECT_EQ(list.RTLDelete("key", &b), -220547);
    EXPECT_EQ(list.RTLDelete("key", &a), 1);
    EXPECT_EQ(list.RTLDelete("key"), -220547);
    EXPECT_EQ(list.RTLDelete(-4), 1);
    EXPECT_EQ(list.RTLDelete(-4), -220547);
    EXPECT_EQ(list.RTLLength(), 0);

    const CVekAtom number(12);
    const CVekAtom text("12");
    list.RTLAdd(12, new CVekPointer(&a));
    EXPECT_EQ(list.RTLGet(12)->RPData(), &a);
    EXPECT_EQ(list.RTLDelete(&text), -220547);  // texts and numbers are different keys
    EXPECT_EQ(list.RTLDelete(&number), 1);
}

TEST(TreeList, KeepsSeveralValuesUnderAMultipleKey) {
    std::vector<int> values(5);
    const CVekAtom news("news");
    CVekTreeList list(TRUE);
    for (int i = 0; i < 4; ++i) list.RTLAdd(i == 1 ? "other" : "news", &values[i]);
    EXPECT_EQ(list.RTLIsMultiple(&news), TRUE);
    EXPECT_EQ(list.RTLGet("news")->RPData(), &values[0]);
    EXPECT_EQ(pointees(list.RTLGetMult("news")), (Pointees{&values[0], &values[2], &values[3]}));
    EXPECT_EQ(list.RTLDelete("news", &values[2]), 1);
    EXPECT_EQ(list.RTLDelete("news", &values[0]), 1);
    EXPECT_EQ(list.RTLIsMultiple(&news), FALSE);
    EXPECT_EQ(pointees(list.RTLIterator()), (Pointees{&values[1], &values[3]}));
    list.RTLAdd("news", &values[4]);
    EXPECT_EQ(list.RTLDelete(&news), 1);  // all values of the key
    EXPECT_TRUE(pointees(list.RTLGetMult("news")).empty());
    EXPECT_EQ(list.RTLDelete(&news), -220547);
    EXPECT_EQ(list.RTLDelete(static_cast<const CVekAtom*>(nullptr)), -220552);
}

TEST(TreeList, RemovesOneOfManyValuesAlsoWhenPointeesChange) {
    std::vector<int> values(1000);
    CVekTreeList list(TRUE);
    Pointees expected;
    for (int& value : values) {
        list.RTLAdd(&value == &values[7] ? "other" : "key", &value);
        expected.push_back(&value);
    }
    const auto expectRemoved = [&](void* named, void* pointee) {
        EXPECT_EQ(list.RTLDelete("key", named), 1);
        std::erase(expected, pointee);
        EXPECT_EQ(pointees(list.RTLIterator()), expected);
    };
    expectRemoved(&values[500], &values[500]);
    EXPECT_EQ(list.RTLDelete("key", &values[500]), -220547);
    EXPECT_EQ(list.RTLDelete("key", &values[7]), -220547);  // under another key
    expectRemoved(list.RTLGet("key"), &values[0]);          // by its holder
    list.RTLGet("key")->RPSetData(&values[900]);            // now there twice: the first one goes
    std::erase(expected, &values[1]);
    EXPECT_EQ(list.RTLDelete("key", &values[1]), -220547);
    EXPECT_EQ(list.RTLDelete("key", &values[900]), 1);
    EXPECT_EQ(pointees(list.RTLIterator()), expected);
    list.RTLAdd("key", &values[1]);
    expected.push_back(&values[1]);
    expectRemoved(&values[900], &values[900]);
    EXPECT_EQ(list.RTLDelete("key"), 1);
    list.RTLAdd("key", &values[3]);
    EXPECT_EQ(list.RTLDelete("key", &values[900]), -220547);
    EXPECT_EQ(pointees(list.RTLIterator()), (Pointees{&values[7], &values[3]}));
}

TEST(VarBindList, OwnsCopiesOfNamesAndValues) {
    CVekVBList list;
    {
        const CVekAtom name("service");
        const CVekAtom value("7500");
        EXPECT_EQ(list.RVBLAddToListEnd(new CVekVarBind(name, &value)), 1);
        EXPECT_EQ(list.RVBLAddToListEnd(new CVekVarBind(name, nullptr)), 1);
    }
    const CVekVBList copy(list);
    CVekVarBind* binding = copy.RVBLHead();
    ASSERT_NE(binding, nullptr);
    EXPECT_NE(binding, list.RVBLHead());
    EXPECT_STREQ(binding->RVBName().RAString(), "service");
    EXPECT_STREQ(binding->RVBValue()->RAString(), "7500");
    binding = copy.RVBLGetNext(binding);
    EXPECT_EQ(binding->RVBValue(), nullptr);
    EXPECT_EQ(copy.RVBLGetNext(binding), nullptr);
}

}  // namespace
}  // namespace kvx::test
