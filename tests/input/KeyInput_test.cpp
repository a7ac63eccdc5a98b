// SimulateKeyStroke as Java calls it, asserted call by call: which key the
// layout (VkKeyScanW) or the caller names, the modifiers that the layout or
// the mask asks for, the extended flag, the scan code, the key-down delay.
#include "InputTest.h"

#include <cstdio>
#include <ostream>
#include <string>

using dwtest::InputOnElements;

namespace {

const std::string SHIFT_DOWN = "keybd_event(0x10,0x2a,0)", SHIFT_UP = "keybd_event(0x10,0x2a,2)";
const std::string CONTROL_DOWN = "keybd_event(0x11,0x1d,0)", CONTROL_UP = "keybd_event(0x11,0x1d,2)";
const std::string ALT_DOWN = "keybd_event(0x12,0x38,0)", ALT_UP = "keybd_event(0x12,0x38,2)";
// The right Alt key, which with Control is AltGr.
const std::string ALTGR_DOWN = "keybd_event(0x12,0x38,1)", ALTGR_UP = "keybd_event(0x12,0x38,3)";
const std::string A_STROKE = "keybd_event(0x41,0x1e,0); Sleep(0); keybd_event(0x41,0x1e,2)";

struct KeyRow {
    const char* what;
    jchar c;
    jint keyCode, modifiers;
    std::string calls;
};

const KeyRow KEY_ROWS[] = {
    {"a plain letter", L'a', 0, 0, "VkKeyScanW(0x61); " + A_STROKE},
    {"a capital takes Shift from the layout", L'A', 0, 0, "VkKeyScanW(0x41); " + SHIFT_DOWN + "; " + A_STROKE + "; " + SHIFT_UP},
    {"AltGr from the layout", L'@', 0, 0,
     "VkKeyScanW(0x40); " + CONTROL_DOWN + "; " + ALTGR_DOWN +
         "; keybd_event(0x51,0x10,0); Sleep(0); keybd_event(0x51,0x10,2); " + ALTGR_UP + "; " + CONTROL_UP},
    {"the mask wins over the layout's Control", 0x01, 0, 1,
     "VkKeyScanW(0x1); " + SHIFT_DOWN + "; " + A_STROKE + "; " + SHIFT_UP},
    {"a character the layout can't make", 0x263A, 0, 0,
     "VkKeyScanW(0x263a); " + SHIFT_DOWN + "; " + CONTROL_DOWN + "; " + ALTGR_DOWN +
         "; keybd_event(0xff,0x0,0); Sleep(0); keybd_event(0xff,0x0,2); " + ALTGR_UP + "; " + CONTROL_UP + "; " +
         SHIFT_UP},
    {"all 16 bits of the character", 0xFF21, 0, 0, "VkKeyScanW(0xff21); " + A_STROKE},
    {"a key code is used without the layout", L'a', VK_F4, 8,
     ALT_DOWN + "; keybd_event(0x73,0x3e,0); Sleep(0); keybd_event(0x73,0x3e,2); " + ALT_UP},
    {"Control and Alt of the mask are AltGr", 0, 'Q', 10,
     CONTROL_DOWN + "; " + ALTGR_DOWN + "; keybd_event(0x51,0x10,0); Sleep(0); keybd_event(0x51,0x10,2); " +
         ALTGR_UP + "; " + CONTROL_UP},
    {"Shift, Control and Alt of the mask", 0, 'A', 11,
     SHIFT_DOWN + "; " + CONTROL_DOWN + "; " + ALTGR_DOWN + "; " + A_STROKE + "; " + ALTGR_UP + "; " + CONTROL_UP +
         "; " + SHIFT_UP},
    {"mask bit 4 is no key", 0, 'A', 4, A_STROKE},
};

void PrintTo(const KeyRow& row, std::ostream* out) { *out << row.what; }

class KeySequences : public InputOnElements, public testing::WithParamInterface<KeyRow> {
protected:
    void SetUp() override {
        InputOnElements::SetUp();
        if (calls) {
            // A German layout: '@' is AltGr+Q; 0x01 is Control+A.
            calls->layout = {{L'a', 0x41}, {L'A', 0x141}, {L'@', 0x651}, {0x01, 0x241}, {0xFF21, 0x41}, {0x21, 0x131}};
        }
    }
};

// The first and the last of the virtual keys that need the extended flag,
// one between, and two that don't.
struct ExtendedRow {
    jint key;
    UINT scan;
    bool extended;
};

const ExtendedRow EXTENDED_ROWS[] = {{VK_LEFT, 0x4b, true},   {VK_DELETE, 0x53, true}, {VK_NUMLOCK, 0x45, true},
                                     {VK_RETURN, 0x1c, false}, {'A', 0x1e, false}};

void PrintTo(const ExtendedRow& row, std::ostream* out) { *out << "key 0x" << std::hex << row.key; }

class ExtendedKeys : public InputOnElements, public testing::WithParamInterface<ExtendedRow> {};

std::string stroke(const ExtendedRow& row) {
    char text[160];
    const int down = row.extended ? 1 : 0;
    std::snprintf(text, sizeof text, "keybd_event(0x%x,0x%x,%d); Sleep(0); keybd_event(0x%x,0x%x,%d)",
                  static_cast<unsigned>(row.key), row.scan, down, static_cast<unsigned>(row.key), row.scan, down | 2);
    return text;
}

}  // namespace

TEST_P(KeySequences, CallByCall) {
    const KeyRow& row = GetParam();
    EXPECT_EQ(row.calls, key(button, row.c, row.keyCode, row.modifiers));
}

INSTANTIATE_TEST_SUITE_P(Rows, KeySequences, testing::ValuesIn(KEY_ROWS), dwtest::rowName<KeyRow>);

TEST_P(ExtendedKeys, KeepTheirFlagInBothStrokes) {
    const ExtendedRow& row = GetParam();
    calls->scanCodes[static_cast<UINT>(row.key)] = row.scan;
    EXPECT_EQ(stroke(row), key(button, 0, row.key, 0));
}

INSTANTIATE_TEST_SUITE_P(Rows, ExtendedKeys, testing::ValuesIn(EXTENDED_ROWS));

// Every call: the scan code is MapVirtualKeyW's of the key, and the key-down
// delay is read at each stroke.
TEST_F(InputOnElements, AStrokeCallByCallWithItsDelay) {
    calls->layout = {{L'A', 0x141}};
    const std::string stroke = "VkKeyScanW(0x41); MapVirtualKeyW(0x10,0); keybd_event(0x10,0x2a,0);"
                               " MapVirtualKeyW(0x41,0); keybd_event(0x41,0x1e,0); Sleep(%D); MapVirtualKeyW(0x41,0);"
                               " keybd_event(0x41,0x1e,2); MapVirtualKeyW(0x10,0); keybd_event(0x10,0x2a,2)";
    auto withDelay = [&](const std::string& delay) { return std::string(stroke).replace(stroke.find("%D"), 2, delay); };
    EXPECT_EQ(withDelay("0"), key(button, L'A', 0, 0, {}));
    setPreference(L"deskwright.delay.after.keydown", L"30");
    EXPECT_EQ(withDelay("30"), key(button, L'A', 0, 0, {}));
    setPreference(L"deskwright.delay.after.keydown", L"soon");
    EXPECT_EQ(withDelay("0"), key(button, L'A', 0, 0, {}));
    calls->scanCodes['A'] = 0x99;
    setPreference(L"deskwright.delay.after.keydown", L"5");
    EXPECT_EQ("keybd_event(0x10,0x2a,0); keybd_event(0x41,0x99,0); Sleep(5); keybd_event(0x41,0x99,2);"
              " keybd_event(0x10,0x2a,2)",
              key(button, L'A', 0, 0, {"MapVirtualKeyW", "VkKeyScanW"}));
}
