// Controls at addresses at or above 0x80000000, as a 32-bit driver gets them
// in a large-address-aware Java VM: their handles reach Java negative, in the
// long[] results and as the decimal text of the flat results alike.
//
// The test process is large-address-aware. It reserves the whole lower half
// of its address space and fills what the heap has free there, so that the
// controls the driver makes next come from the upper half.
#include "DriverTest.h"

#include <vector>

using dwtest::DriverTest;

namespace {

class HighHandles : public DriverTest {
protected:
    void TearDown() override {
        DriverTest::TearDown();
        for (void* block : blocks) std::free(block);
        for (void* region : regions) VirtualFree(region, 0, MEM_RELEASE);
    }

    // Reserves every free region below 2 GB, then takes small blocks of
    // every size from the heap until it hands out high addresses only.
    bool crowdTheLowerHalf() {
        MEMORY_BASIC_INFORMATION info;
        for (auto at = reinterpret_cast<std::uintptr_t>(nullptr) + 0x10000; at < 0x80000000u;
             at = reinterpret_cast<std::uintptr_t>(info.BaseAddress) + info.RegionSize) {
            if (!VirtualQuery(reinterpret_cast<void*>(at), &info, sizeof(info))) break;
            if (info.State == MEM_FREE) {
                const std::uintptr_t end = std::min<std::uintptr_t>(
                    reinterpret_cast<std::uintptr_t>(info.BaseAddress) + info.RegionSize, 0x80000000u);
                const std::uintptr_t start = (reinterpret_cast<std::uintptr_t>(info.BaseAddress) + 0xFFFF) & ~0xFFFFu;
                if (end > start) {
                    void* region = VirtualAlloc(reinterpret_cast<void*>(start), end - start, MEM_RESERVE, PAGE_NOACCESS);
                    if (region) regions.push_back(region);
                }
            }
        }
        for (std::size_t size = 8; size <= 2048; size += 8) {
            for (int i = 0; i < 200000; ++i) {
                void* block = std::malloc(size);
                if (!block) return false;
                blocks.push_back(block);
                if (reinterpret_cast<std::uintptr_t>(block) >= 0x80000000u) break;
            }
        }
        return true;
    }

    std::vector<void*> regions;
    std::vector<void*> blocks;
};

}  // namespace

TEST_F(HighHandles, HandlesAboveTwoGigabytesAreNegativeInEveryResult) {
    if (sizeof(void*) != 4) GTEST_SKIP() << "a 64-bit driver's handles are addresses of their own width";
    attachToOwnWindow(L"Target").add({.controlType = UIA_ButtonControlTypeId, .name = L"OK", .bounds = {20, 20, 80, 40}});
    ASSERT_TRUE(crowdTheLowerHalf());

    auto tops = toplevels();
    ASSERT_EQ(1u, tops.size());
    auto kids = children(tops[0]);
    ASSERT_EQ(1u, kids.size());
    ASSERT_LT(kids[0], 0) << "the control was made in the upper half: " << std::hex << kids[0];
    EXPECT_GE(kids[0], -0x80000000LL) << "widened by sign extension";

    auto flat = host->strings(native<jobjectArray>("GetChildrenWithAttributes", tops[0], host->stringArray({L"name"})));
    EXPECT_EQ((std::vector<std::optional<std::wstring>>{std::to_wstring(kids[0]), L"OK"}), flat);
    auto tree = host->strings(native<jobjectArray>("GetHierarchyWithAttributes", kids[0], host->stringArray({}),
                                                   host->longArray({})));
    EXPECT_EQ((std::vector<std::optional<std::wstring>>{L"0", std::to_wstring(kids[0])}), tree);
    EXPECT_EQ(L"OK", attr(kids[0], L"name"))
        << "a negative handle from Java finds its control";
    EXPECT_EQ(tops[0], native<jlong>("GetParent", kids[0]));
}
