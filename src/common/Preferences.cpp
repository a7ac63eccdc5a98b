#include "common/Preferences.h"

#include "common/Logging.h"
#include "common/NullMarkers.h"

namespace tolva {

const wchar_t* const NULL_JAVA_STRING = L"__null_java_string__";
const wchar_t* const NULL_ATTRIBUTE = L"__NULL__";

const wchar_t* const PREF_DELAY_AFTER_MOUSEMOVED = L"deskwright.delay.after.mousemoved";
const wchar_t* const PREF_DELAY_AFTER_MOUSEPRESSED = L"deskwright.delay.after.mousepressed";
const wchar_t* const PREF_DELAY_MOUSE_MULTICLICK = L"deskwright.delay.mouse.multiclick";
const wchar_t* const PREF_DELAY_AFTER_KEYDOWN = L"deskwright.delay.after.keydown";
const wchar_t* const PREF_MAX_CHILDREN = L"deskwright.max.children";
const wchar_t* const PREF_REC_ELEMENT_WITH_DIFFERENT_PID = L"deskwright.rec.element.with.different.pid";
const wchar_t* const PREF_FRONT_VIA_FOCUS = L"deskwright.front.via.focus";
const wchar_t* const PREF_RESTRICT_TOPS_TO_CLASS = L"deskwright.restrict.tops.to.class";
const wchar_t* const PREF_RID_APPEND_ROW_NAME = L"deskwright.rid.append.row.name";
const wchar_t* const PREF_RID_APPEND_CHILDID = L"deskwright.rid.append.childid";
const wchar_t* const PREF_RID_APPEND_LOC = L"deskwright.rid.append.loc";
const wchar_t* const PREF_TOPLEVEL_CLASSES = L"deskwright.toplevel.classes";
const wchar_t* const PREF_OMIT_STATES = L"deskwright.omit.states";
const wchar_t* const PREF_TEST_NONUNIQUE_ROW_NAMES = L"deskwright.test.internal.nonunique.row.names";
const wchar_t* const PREF_TEST_NONUNIQUE_RIDS = L"deskwright.test.internal.nonunique.rids";

namespace {

Logger& logger = Log::getLogger("tolva.Preferences");

// Defaults in the order in which they are looked up.
struct Default {
    const wchar_t* const* key;
    const wchar_t* value;
};
const Default defaults[] = {
    {&PREF_DELAY_AFTER_MOUSEMOVED, L"50"},  {&PREF_DELAY_AFTER_MOUSEPRESSED, L"25"},
    {&PREF_DELAY_AFTER_KEYDOWN, L"0"},      {&PREF_DELAY_MOUSE_MULTICLICK, L"150"},
    {&PREF_MAX_CHILDREN, L"0"},             {&PREF_REC_ELEMENT_WITH_DIFFERENT_PID, L"false"},
};

}  // namespace

Preferences& Preferences::getInstance() {
    static Preferences instance;
    return instance;
}

template <class F>
auto Preferences::withValue(std::wstring_view key, F use) -> decltype(use(std::wstring_view())) {
    TOLVA_LOG(logger, 9, "key: " << std::wstring(key));
    {
        AcquireSRWLockShared(&lock_);
        auto found = store_.find(key);
        if (found != store_.end()) {
            struct Release {
                SRWLOCK* lock;
                ~Release() { ReleaseSRWLockShared(lock); }
            } release{&lock_};
            return use(std::wstring_view(found->second));
        }
        ReleaseSRWLockShared(&lock_);
    }
    for (const Default& entry : defaults) {
        if (key == *entry.key) {
            return use(std::wstring_view(entry.value));
        }
    }
    return use(std::wstring_view());
}

std::wstring Preferences::getPreference(std::wstring_view key) {
    return withValue(key, [](std::wstring_view value) { return std::wstring(value); });
}

void Preferences::setPreference(const std::wstring& key, const std::wstring& value) {
    TOLVA_LOG(logger, 9, "pref: " << key << " value: " << value);
    std::size_t size = 0;
    {
        AcquireSRWLockExclusive(&lock_);
        try {
            if (value == NULL_JAVA_STRING) {
                store_.erase(key);
            } else {
                store_[key] = value;
                size = store_.size();
            }
        } catch (...) {
            ReleaseSRWLockExclusive(&lock_);
            throw;
        }
        ReleaseSRWLockExclusive(&lock_);
    }
    if (value == NULL_JAVA_STRING) {
        TOLVA_LOG(logger, 9, "erasing pref from store");
        return;
    }
    TOLVA_LOG(logger, 9, "saving new value of pref. store size: " << size);
}

int Preferences::getInt(std::wstring_view key) {
    return parseIntOr(getPreference(key), 0);
}

bool Preferences::getFlag(std::wstring_view key) {
    return withValue(key, [](std::wstring_view value) { return value == L"true"; });
}

std::vector<std::wstring> Preferences::getList(std::wstring_view key) {
    return splitString(getPreference(key), L',');
}

int parseIntOr(std::wstring text, int fallback) {
    try {
        return std::stoi(text);
    } catch (...) {  // std::invalid_argument or std::out_of_range
        return fallback;
    }
}

std::vector<std::wstring> splitString(const std::wstring& text, wchar_t separator) {
    std::vector<std::wstring> pieces;
    if (text.empty()) {
        return pieces;
    }
    std::wstring::size_type start = 0;
    for (;;) {
        std::wstring::size_type end = text.find(separator, start);
        if (end == std::wstring::npos) {
            pieces.push_back(text.substr(start));
            return pieces;
        }
        pieces.push_back(text.substr(start, end - start));
        start = end + 1;
    }
}

}  // namespace tolva
