// What the driver takes from the heap for the natives that Java calls most:
// the handle check and the reads of children and of whole hierarchies. Each
// heap block is a cost of the driver's own beside the round trips to the
// target, and a heap crowded by a long test run makes each one dearer. The
// blocks are counted at the driver's own imports, on the calling thread only,
// with the log at its shipped level.
#include "DriverTest.h"
#include "ImportPatch.h"

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using dwtest::DriverTest;

namespace {

std::atomic<DWORD> countedThread{0};
std::atomic<long> blocks{0};
void* (*realMalloc)(size_t) = nullptr;

void* countingMalloc(size_t size) {
    if (GetCurrentThreadId() == countedThread) {
        ++blocks;
    }
    return realMalloc(size);
}

class HeapBlocks : public DriverTest {
protected:
    // As shipped, but for the dispatch thread's end, which the teardown waits for.
    std::wstring logLevels() const override { return L"*=2,tolva.Uia=5"; }

    // A window of 3 groups with 20 items each, attached, with every control made.
    void SetUp() override {
        DriverTest::SetUp();
        fakeuia::Node& window = attachToOwnWindow(L"Target");
        for (int g = 0; g < 3; ++g) {
            fakeuia::NodeSpec group;
            group.controlType = UIA_GroupControlTypeId;
            group.name = L"group number " + std::to_wstring(g);
            group.bounds = {10, 10 + 20 * g, 410, 30 + 20 * g};
            fakeuia::Node& groupNode = window.add(group);
            for (int i = 0; i < 20; ++i) {
                fakeuia::NodeSpec item;
                item.controlType = UIA_ListItemControlTypeId;
                item.name = L"item " + std::to_wstring(g) + L"." + std::to_wstring(i);
                item.bounds = {10 + i, 10 + 20 * g, 20 + i, 30 + 20 * g};
                groupNode.add(item);
            }
        }
        top = host->longs(native<jlongArray>("GetToplevels")).at(0);
        names = host->stringArray({L"name", L"rid2"});
        excluded = host->longArray({});
        hierarchy();  // makes every control
        group = host->longs(native<jlongArray>("GetChildren", top)).at(0);
        patch = std::make_unique<dwtest::ImportPatch>(dll->module(), "malloc", reinterpret_cast<void*>(&countingMalloc));
        realMalloc = reinterpret_cast<void* (*)(size_t)>(patch->original());
    }
    void TearDown() override {
        patch.reset();
        DriverTest::TearDown();
    }

    jobjectArray hierarchy() { return native<jobjectArray>("GetHierarchyWithAttributes", top, names, excluded); }

    // The blocks that `call` takes on this thread.
    template <class F>
    long blocksOf(F call) {
        blocks = 0;
        countedThread = GetCurrentThreadId();
        call();
        countedThread = 0;
        return blocks;
    }

    jlong top = 0;
    jlong group = 0;
    jobjectArray names = nullptr;
    jlongArray excluded = nullptr;
    std::unique_ptr<dwtest::ImportPatch> patch;
};

}  // namespace

// The budgets: a handle check and a property read need no block at all; a
// child found again costs its type name, its key and its name as read; an
// element of a hierarchy adds its two flat entries and the texts it reads.
TEST_F(HeapBlocks, NativesStayWithinTheirBudgets) {
    ASSERT_TRUE(patch->applied());
    struct Row {
        const char* what;
        std::function<void()> call;
        double elements;  // the unit of the budget
        double budget;    // blocks per unit
    };
    const Row rows[] = {
        {"GetNativeHandle", [&] { native<jlong>("GetNativeHandle", group); }, 1, 0},
        {"GetChildren of 20 known children", [&] { native<jlongArray>("GetChildren", group); }, 20, 4},
        {"GetHierarchyWithAttributes of 64 elements", [&] { hierarchy(); }, 64, 14},
    };
    for (const Row& row : rows) {
        const long taken = blocksOf(row.call);
        EXPECT_LE(taken / row.elements, row.budget) << row.what << ": " << taken << " blocks";
    }
    EXPECT_EQ(256u, host->strings(hierarchy()).size()) << "the hierarchy reached every element";
}
