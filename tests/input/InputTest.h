// Input natives called as Java calls them, with the driver's calls of the
// system's input functions recorded (PlatformCalls): the world of the input
// suites. RecordedInput has no target, so the classic back end answers;
// InputOnElements attaches to a window of this process with elements of known
// bounds.
#pragma once

#include "DriverTest.h"
#include "PlatformCalls.h"

#include <cctype>
#include <initializer_list>
#include <memory>
#include <string>

namespace dwtest {

class RecordedInput : public DriverTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // One native call, recorded; the list leaves out the functions in `omit`.
    template <class R = void, class... A>
    std::string recorded(std::initializer_list<const char*> omit, const std::string& method, A... args) {
        calls->start();
        native<R>(method, args...);
        return calls->take(omit);
    }
    std::string mouse(jlong handle, jint id, jint button, jint x, jint y, jint modifiers, jint count,
                      std::initializer_list<const char*> omit = {"GetSystemMetrics", "MapVirtualKeyW"}) {
        return recorded(omit, "SimulateMouseEvent", handle, id, button, x, y, modifiers, count);
    }
    std::string key(jlong handle, jchar c, jint keyCode, jint modifiers,
                    std::initializer_list<const char*> omit = {"MapVirtualKeyW"}) {
        return recorded(omit, "SimulateKeyStroke", handle, c, keyCode, modifiers);
    }
    // Erases a preference, as Java does with a null value.
    void erasePreference(const std::wstring& key);

    std::unique_ptr<PlatformCalls> calls;
};

class InputOnElements : public RecordedInput {
protected:
    // The target: a window of this process on the simulated desktop with a
    // button at (100, 200, 300, 240), a menu bar with an item at the same
    // bounds, an element without bounds (all 0) and one whose bounds can't
    // be read.
    void SetUp() override;
    void TearDown() override;

    fakeuia::Node* top = nullptr;
    fakeuia::Node* buttonNode = nullptr;
    jlong button = 0, menuItem = 0, unbounded = 0, unreadable = 0;
};

// A parameterised row's name for GoogleTest: its `what`, in letters, digits
// and underscores.
template <class Row>
std::string rowName(const testing::TestParamInfo<Row>& info) {
    std::string name;
    for (const char* c = info.param.what; *c; ++c) {
        name += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
    }
    return name;
}

}  // namespace dwtest
