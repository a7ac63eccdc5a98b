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
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

using dwtest::DriverTest;

namespace {

// The blocks that the driver takes on the counted thread.
std::atomic<DWORD> countedThread{0};
std::atomic<long> blocks{0};

// The blocks that the driver took and hasn't given back, on any thread, while
// kept is on. A block made before is not counted when it is freed.
struct KeptBlocks {
    std::mutex lock;
    std::unordered_set<void*> blocks;
    bool on = false;
    void* (*malloc)(size_t) = nullptr;
    void* (*realloc)(void*, size_t) = nullptr;
    void (*free)(void*) = nullptr;

    void made(void* block) {
        std::lock_guard<std::mutex> guard(lock);
        if (on && block) blocks.insert(block);
    }
    void gone(void* block) {
        std::lock_guard<std::mutex> guard(lock);
        blocks.erase(block);
    }
    size_t count() {
        std::lock_guard<std::mutex> guard(lock);
        return blocks.size();
    }
} kept;

void* keptMalloc(size_t size) {
    if (GetCurrentThreadId() == countedThread) ++blocks;
    void* block = kept.malloc(size);
    kept.made(block);
    return block;
}

void* keptRealloc(void* old, size_t size) {
    void* block = kept.realloc(old, size);
    if (block || size == 0) kept.gone(old);
    kept.made(block);
    return block;
}

void keptFree(void* block) {
    kept.gone(block);
    kept.free(block);
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
            fakeuia::Node& groupNode = add(window, UIA_GroupControlTypeId, L"group number " + std::to_wstring(g),
                                           {10, 10 + 20 * g, 410, 30 + 20 * g});
            for (int i = 0; i < 20; ++i) {
                add(groupNode, UIA_ListItemControlTypeId, L"item " + std::to_wstring(g) + L"." + std::to_wstring(i),
                    {10 + i, 10 + 20 * g, 20 + i, 30 + 20 * g});
            }
        }
        top = host->longs(native<jlongArray>("GetToplevels")).at(0);
        names = host->stringArray({L"name", L"rid2"});
        excluded = host->longArray({});
        hierarchy();  // makes every control
        group = host->longs(native<jlongArray>("GetChildren", top)).at(0);
        patch("malloc", &keptMalloc, &kept.malloc);
        patch("realloc", &keptRealloc, &kept.realloc);
        patch("free", &keptFree, &kept.free);
    }
    void TearDown() override {
        patches.clear();
        DriverTest::TearDown();
    }
    // The driver's import of a function goes to a stand-in, which calls the original.
    template <class F>
    void patch(const char* function, F replacement, F* original) {
        patches.push_back(std::make_unique<dwtest::ImportPatch>(dll->module(), function,
                                                                reinterpret_cast<void*>(replacement)));
        *original = patches.back()->applied() ? reinterpret_cast<F>(patches.back()->original()) : nullptr;
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
    std::vector<std::unique_ptr<dwtest::ImportPatch>> patches;
};

}  // namespace

// The budgets: a handle check and a property read need no block at all; a
// child found again costs its type name, its key and its name as read; an
// element of a hierarchy adds its two flat entries and the texts it reads.
TEST_F(HeapBlocks, NativesStayWithinTheirBudgets) {
    ASSERT_TRUE(kept.malloc) << "the driver imports no malloc";
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

// Java reads the same elements again and again for hours: once every control
// is made, a read leaves nothing behind in the driver's heap, however often
// it comes.
TEST_F(HeapBlocks, RepeatedReadsLeaveNoBlocksBehind) {
    ASSERT_TRUE(kept.malloc && kept.free);
    auto round = [&] {
        env->PushLocalFrame(256);
        for (jlong top : host->longs(native<jlongArray>("GetToplevels"))) {
            for (jlong child : host->longs(native<jlongArray>("GetChildren", top))) {
                native<jobjectArray>("GetAttributes", child, names);
                native<jlong>("GetParent", child);
                native<jlongArray>("GetChildren", child);
            }
        }
        hierarchy();
        native<jlong>("GetElementFromPoint", jint{15}, jint{15});
        env->PopLocalFrame(nullptr);
    };
    for (int rounds : {50, 500}) {
        kept.blocks.clear();
        kept.on = true;
        for (int i = 0; i < rounds; ++i) round();
        kept.on = false;
        EXPECT_LE(kept.count(), 8u) << rounds << " rounds of reads keep blocks";
    }
}
