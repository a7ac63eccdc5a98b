// Grid places, selection, window state and text of an element.
#include "uiahelper/UiaHelper.h"

#include "common/Logging.h"

#include <utility>

using tolva::Bstr;
using tolva::ComPtr;

namespace UiaHelper {

namespace {

tolva::Logger& logger = tolva::Log::getLogger("tolva.uia.UiaHelper");

const TEXTATTRIBUTEID IS_READ_ONLY_ATTRIBUTE = 40015;  // UIA_IsReadOnlyAttributeId

// A pattern's number into `value` if the read works; `value` stays otherwise.
template <class P>
void ReadInto(P* pattern, HRESULT (STDMETHODCALLTYPE P::*getter)(int*), int& value) {
    int read = 0;
    if (SUCCEEDED((pattern->*getter)(&read))) {
        value = read;
    }
}

}  // namespace

GridPair GetGridColumnAndRowCount(IUIAutomationElement* element) {
    int columns = -1;
    int rows = -1;
    ComPtr<IUIAutomationGridPattern> grid;
    if (FAILED(OpenPattern(element, UIA_GridPatternId, grid)) || !grid) {
        TOLVA_LOG(logger, 3, "Not a grid: " << static_cast<void*>(element));
    } else {
        // The codes decide nothing, but a failed read leaves its output
        // undefined: only a read that worked replaces the -1.
        ReadInto(grid.get(), &IUIAutomationGridPattern::get_CurrentRowCount, rows);
        ReadInto(grid.get(), &IUIAutomationGridPattern::get_CurrentColumnCount, columns);
    }
    return GridPair{columns, rows};
}

IUIAutomationElement* GetGridItem(IUIAutomationElement* element, int column, int row) {
    TOLVA_LOG(logger, 7, "el: " << static_cast<void*>(element) << ", c: " << column << ", r: " << row);
    ComPtr<IUIAutomationGridPattern> grid;
    if (FAILED(OpenPattern(element, UIA_GridPatternId, grid)) || !grid) {
        return nullptr;
    }
    ElementPtr item;
    HRESULT hr = grid->GetItem(row, column, item.put());
    if (FAILED(hr) || !item) {
        TOLVA_LOG(logger, 9, "Error retrieving item: " << std::hex << hr);
        return nullptr;
    }
    return item.detach();
}

GridPair GetGridItemColumnAndRow(IUIAutomationElement* element) {
    int column = -1;
    int row = -1;
    ComPtr<IUIAutomationGridItemPattern> gridItem;
    if (FAILED(OpenPattern(element, UIA_GridItemPatternId, gridItem)) || !gridItem) {
        TOLVA_LOG(logger, 3, "Not a grid item: " << static_cast<void*>(element));
    } else {
        ReadInto(gridItem.get(), &IUIAutomationGridItemPattern::get_CurrentColumn, column);
        ReadInto(gridItem.get(), &IUIAutomationGridItemPattern::get_CurrentRow, row);
    }
    return GridPair{column, row};
}

ElementList GetColumnHeaders(IUIAutomationElement* element) {
    ElementList headers;
    ComPtr<IUIAutomationTablePattern> table;
    if (FAILED(OpenPattern(element, UIA_TablePatternId, table)) || !table) {
        TOLVA_LOG(logger, 3, "Not a table " << static_cast<void*>(element));
        return headers;
    }
    ComPtr<IUIAutomationElementArray> array;
    if (FAILED(table->GetCurrentColumnHeaders(array.put())) || !array) {
        return headers;
    }
    int length = 0;
    array->get_Length(&length);
    for (int i = 0; i < length; ++i) {
        ElementPtr header;
        if (FAILED(array->GetElement(i, header.put())) || !header) {
            TOLVA_LOG(logger, 9, "Error retrieving element");
            continue;
        }
        headers.push_back(std::move(header));
    }
    return headers;
}

bool IsSelected(IUIAutomationElement* element) {
    ComPtr<IUIAutomationSelectionItemPattern> item;
    if (SUCCEEDED(OpenPattern(element, UIA_SelectionItemPatternId, item)) && item) {
        BOOL selected = FALSE;
        HRESULT hr = item->get_CurrentIsSelected(&selected);
        if (FAILED(hr)) {
            TOLVA_LOG(logger, 3, "Error retrieving selected state " << std::hex << hr);
            return false;
        }
        return selected == 1;
    }
    return GetAccStateNames(element).find(L"SELECTED") != std::wstring::npos;
}

int GetControlInteractionState(IUIAutomationElement* element) {
    ComPtr<IUIAutomationElement> top;
    if (GetControlClassName(element) == CORE_WINDOW_CLASS) {
        top = ComPtr<IUIAutomationElement>::attach(GetTopParent(element));
        if (top) {
            TOLVA_LOG(logger, 9, "top: " << static_cast<void*>(top.get()));
        }
    }
    IUIAutomationElement* used = top ? top.get() : element;
    int state = -1;
    ComPtr<IUIAutomationWindowPattern> window;
    if (SUCCEEDED(OpenPattern(used, UIA_WindowPatternId, window)) && window) {
        WindowInteractionState read = WindowInteractionState_Running;
        if (SUCCEEDED(window->get_CurrentWindowInteractionState(&read))) {
            state = static_cast<int>(read);
        }
    }
    TOLVA_LOG(logger, 9, "state: " << state);
    return state;
}

bool IsControlModal(IUIAutomationElement* element) {
    bool modal = false;
    ComPtr<IUIAutomationWindowPattern> window;
    if (SUCCEEDED(OpenPattern(element, UIA_WindowPatternId, window)) && window) {
        BOOL read = 0;
        if (SUCCEEDED(window->get_CurrentIsModal(&read))) {
            modal = read == 1;
        }
    }
    TOLVA_LOG(logger, 9, "modal: " << modal);
    return modal;
}

bool HasWindowPattern(IUIAutomationElement* element) {
    ComPtr<IUIAutomationWindowPattern> window;
    return SUCCEEDED(OpenPattern(element, UIA_WindowPatternId, window)) && window;
}

std::wstring GetControlText(IUIAutomationElement* element) {
    std::wstring text;
    if (!element) {
        return text;
    }
    bool noPattern = false;
    bool noRange = false;
    ComPtr<IUIAutomationTextPattern> pattern;
    if (FAILED(OpenPattern(element, UIA_TextPatternId, pattern)) || !pattern) {
        noPattern = true;
    } else {
        ComPtr<IUIAutomationTextRange> range;
        if (FAILED(pattern->get_DocumentRange(range.put())) || !range) {
            noRange = true;
        } else {
            Bstr read;
            if (SUCCEEDED(range->GetText(-1, read.put())) && read.get()) {
                text = read.text();
                if (static_cast<int>(text.size()) == LONG_TEXT_LIMIT) {
                    ImproveLongText(element, text);
                }
            }
        }
    }
    if (noPattern || noRange) {
        GetControlValue(element, text);
    }
    return text;
}

bool IsTextReadOnly(IUIAutomationElement* element) {
    ComPtr<IUIAutomationTextPattern> pattern;
    if (FAILED(OpenPattern(element, UIA_TextPatternId, pattern)) || !pattern) {
        return false;
    }
    ComPtr<IUIAutomationTextRange> range;
    if (FAILED(pattern->get_DocumentRange(range.put())) || !range) {
        return false;
    }
    tolva::Variant value;
    range->GetAttributeValue(IS_READ_ONLY_ATTRIBUTE, value.put());
    return value.get().iVal == VARIANT_TRUE;
}

}  // namespace UiaHelper
