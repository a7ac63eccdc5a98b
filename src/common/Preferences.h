// The preference store: tuning switches that Java sets by key at run time and
// native code reads at the moment it needs one. Values are text; the store
// doesn't know its keys, and an unknown key is kept like any other. Java
// threads and the dispatch thread use it at once: a lock of its own guards
// the map, held only for the look-up or the change.
#pragma once

#include <windows.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tolva {

// Keys read by the driver.
extern const wchar_t* const PREF_DELAY_AFTER_MOUSEMOVED;    // ms, "50"
extern const wchar_t* const PREF_DELAY_AFTER_MOUSEPRESSED;  // ms, "25"
extern const wchar_t* const PREF_DELAY_MOUSE_MULTICLICK;    // ms, "150"
extern const wchar_t* const PREF_DELAY_AFTER_KEYDOWN;       // ms, "0"
extern const wchar_t* const PREF_MAX_CHILDREN;              // count, "0"
extern const wchar_t* const PREF_REC_ELEMENT_WITH_DIFFERENT_PID;  // flag, "false"
extern const wchar_t* const PREF_FRONT_VIA_FOCUS;           // flag
extern const wchar_t* const PREF_RESTRICT_TOPS_TO_CLASS;    // flag
extern const wchar_t* const PREF_RID_APPEND_ROW_NAME;       // flag
extern const wchar_t* const PREF_RID_APPEND_CHILDID;        // flag
extern const wchar_t* const PREF_RID_APPEND_LOC;            // flag
extern const wchar_t* const PREF_TOPLEVEL_CLASSES;          // list
extern const wchar_t* const PREF_OMIT_STATES;               // list
extern const wchar_t* const PREF_TEST_NONUNIQUE_ROW_NAMES;  // flag
extern const wchar_t* const PREF_TEST_NONUNIQUE_RIDS;       // flag

class Preferences {
public:
    static Preferences& getInstance();

    // The stored value, else the key's default, else the empty string.
    std::wstring getPreference(std::wstring_view key);
    // NULL_JAVA_STRING as the value erases the key.
    void setPreference(const std::wstring& key, const std::wstring& value);

    // Readers of the three value forms; each reads the store afresh.
    // They look the key up as it is, with no copy of it or of the value.
    int getInt(std::wstring_view key);               // parseIntOr(value, 0)
    bool getFlag(std::wstring_view key);             // exactly "true"
    std::vector<std::wstring> getList(std::wstring_view key);  // split at ','

private:
    Preferences() = default;
    // Hands `use` the value as getPreference finds it; the stored one with the
    // lock held.
    template <class F>
    auto withValue(std::wstring_view key, F use) -> decltype(use(std::wstring_view()));

    // Shared by readers: the recorder's threads read preferences for every
    // event, and must not queue up behind each other for it.
    SRWLOCK lock_ = SRWLOCK_INIT;
    std::map<std::wstring, std::wstring, std::less<>> store_;
};

// A leading decimal number of the text ("12ms" is 12), else the fallback.
int parseIntOr(std::wstring text, int fallback);

// The text cut at every separator, empty pieces kept; an empty text gives none.
std::vector<std::wstring> splitString(const std::wstring& text, wchar_t separator);

}  // namespace tolva
