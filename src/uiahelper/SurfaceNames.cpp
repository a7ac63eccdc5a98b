// The name tables that Java sees, and the names of patterns.
#include "uiahelper/UiaHelper.h"

#include "common/ComPtr.h"

using tolva::Bstr;
using tolva::ComPtr;

namespace UiaHelper {

const std::array<const wchar_t*, 41> CONTROL_TYPE_NAMES = {
    L"Button",      L"Calendar",     L"CheckBox",  L"ComboBox",    L"Edit",      L"Hyperlink",  L"Image",
    L"ListItem",    L"List",         L"Menu",      L"MenuBar",     L"MenuItem",  L"ProgressBar", L"RadioButton",
    L"ScrollBar",   L"Slider",       L"Spinner",   L"StatusBar",   L"TabControl", L"TabItem",   L"Text",
    L"ToolBar",     L"ToolTip",      L"Tree",      L"TreeItem",    L"Custom",    L"Group",      L"Thumb",
    L"DataGrid",    L"DataItem",     L"Document",  L"SplitButton", L"Window",    L"Pane",       L"Header",
    L"HeaderItem",  L"Table",        L"TitleBar",  L"Separator",   L"SemanticZoom", L"AppBar",
};

const std::array<const wchar_t*, 64> ACC_ROLE_NAMES = {
    L"TITLEBAR",     L"MENUBAR",        L"SCROLLBAR",          L"GRIP",        L"SOUND",        L"CURSOR",
    L"CARET",        L"ALERT",          L"WINDOW",             L"CLIENT",      L"MENUPOPUP",    L"MENUITEM",
    L"TOOLTIP",      L"APPLICATION",    L"DOCUMENT",           L"PANE",        L"CHART",        L"DIALOG",
    L"BORDER",       L"GROUPING",       L"SEPARATOR",          L"TOOLBAR",     L"STATUSBAR",    L"TABLE",
    L"COLUMNHEADER", L"ROWHEADER",      L"COLUMN",             L"ROW",         L"CELL",         L"LINK",
    L"HELPBALLOON",  L"CHARACTER",      L"LIST",               L"LISTITEM",    L"OUTLINE",      L"OUTLINEITEM",
    L"PAGETAB",      L"PROPERTYPAGE",   L"INDICATOR",          L"GRAPHIC",     L"STATICTEXT",   L"TEXT",
    L"PUSHBUTTON",   L"CHECKBUTTON",    L"RADIOBUTTON",        L"COMBOBOX",    L"DROPLIST",     L"PROGRESSBAR",
    L"DIAL",         L"HOTKEYFIELD",    L"SLIDER",             L"SPINBUTTON",  L"DIAGRAM",      L"ANIMATION",
    L"EQUATION",     L"BUTTONDROPDOWN", L"BUTTONMENU",         L"BUTTONDROPDOWNGRID", L"WHITESPACE", L"PAGETABLIST",
    L"CLOCK",        L"SPLITBUTTON",    L"IPADDRESS",          L"OUTLINEBUTTON",
};

const std::array<const wchar_t*, 31> ACC_STATE_NAMES = {
    L"UNAVAILABLE", L"SELECTED",    L"FOCUSED",         L"PRESSED",        L"CHECKED",     L"MIXED",
    L"READONLY",    L"HOTTRACKED",  L"DEFAULT",         L"EXPANDED",       L"COLLAPSED",   L"BUSY",
    L"FLOATING",    L"MARQUEED",    L"ANIMATED",        L"INVISIBLE",      L"OFFSCREEN",   L"SIZEABLE",
    L"MOVEABLE",    L"SELFVOICING", L"FOCUSABLE",       L"SELECTABLE",     L"LINKED",      L"TRAVERSED",
    L"MULTISELECTABLE", L"EXTSELECTABLE", L"ALERT_LOW", L"ALERT_MEDIUM",   L"ALERT_HIGH",  L"PROTECTED",
    L"HASPOPUP",
};

namespace {

struct PatternInterface {
    PATTERNID id;
    IID iid;
};

// Every pattern that GetControlPatterns probes, in the order of probing.
const PatternInterface PATTERN_INTERFACES[] = {
    {UIA_InvokePatternId, __uuidof(IUIAutomationInvokePattern)},
    {UIA_SelectionPatternId, __uuidof(IUIAutomationSelectionPattern)},
    {UIA_ValuePatternId, __uuidof(IUIAutomationValuePattern)},
    {UIA_RangeValuePatternId, __uuidof(IUIAutomationRangeValuePattern)},
    {UIA_ScrollPatternId, __uuidof(IUIAutomationScrollPattern)},
    {UIA_ExpandCollapsePatternId, __uuidof(IUIAutomationExpandCollapsePattern)},
    {UIA_GridPatternId, __uuidof(IUIAutomationGridPattern)},
    {UIA_GridItemPatternId, __uuidof(IUIAutomationGridItemPattern)},
    {UIA_MultipleViewPatternId, __uuidof(IUIAutomationMultipleViewPattern)},
    {UIA_WindowPatternId, __uuidof(IUIAutomationWindowPattern)},
    {UIA_SelectionItemPatternId, __uuidof(IUIAutomationSelectionItemPattern)},
    {UIA_DockPatternId, __uuidof(IUIAutomationDockPattern)},
    {UIA_TablePatternId, __uuidof(IUIAutomationTablePattern)},
    {UIA_TableItemPatternId, __uuidof(IUIAutomationTableItemPattern)},
    {UIA_TextPatternId, __uuidof(IUIAutomationTextPattern)},
    {UIA_TogglePatternId, __uuidof(IUIAutomationTogglePattern)},
    {UIA_TransformPatternId, __uuidof(IUIAutomationTransformPattern)},
    {UIA_ScrollItemPatternId, __uuidof(IUIAutomationScrollItemPattern)},
    {UIA_LegacyIAccessiblePatternId, __uuidof(IUIAutomationLegacyIAccessiblePattern)},
    {UIA_ItemContainerPatternId, __uuidof(IUIAutomationItemContainerPattern)},
    {UIA_VirtualizedItemPatternId, __uuidof(IUIAutomationVirtualizedItemPattern)},
    {UIA_SynchronizedInputPatternId, __uuidof(IUIAutomationSynchronizedInputPattern)},
};

// True if the element answers the pattern with an object (released at once).
bool SupportsPattern(IUIAutomationElement* element, const PatternInterface& pattern) {
    ComPtr<IUnknown> object;
    HRESULT hr = element->GetCurrentPatternAs(pattern.id, pattern.iid, reinterpret_cast<void**>(object.put()));
    return SUCCEEDED(hr) && object;
}

}  // namespace

int ControlTypeIdFromName(const std::wstring& name) {
    for (size_t row = 0; row < CONTROL_TYPE_NAMES.size(); ++row) {
        if (name == CONTROL_TYPE_NAMES[row]) {
            return FIRST_CONTROL_TYPE_ID + static_cast<int>(row);
        }
    }
    return -1;
}

std::wstring GetPatternName(PATTERNID pattern) {
    std::wstring name = NAME_NOT_READ;
    Bstr programmatic;
    const tolva::AutomationRef automation = tolva::automation();
    HRESULT hr = automation ? automation->GetPatternProgrammaticName(pattern, programmatic.put()) : E_FAIL;
    if (SUCCEEDED(hr) && programmatic.get()) {
        name = programmatic.text();
        const std::wstring::size_type word = name.find(L"Pattern");
        if (word != std::wstring::npos) {
            name.erase(word, 7);
        }
    }
    return name;
}

std::wstring GetControlPatterns(IUIAutomationElement* element) {
    std::wstring patterns = L" ";
    if (!element) {
        return patterns;
    }
    for (const PatternInterface& pattern : PATTERN_INTERFACES) {
        if (SupportsPattern(element, pattern)) {
            patterns += GetPatternName(pattern.id) + L" ";
        }
    }
    return patterns;
}

}  // namespace UiaHelper
