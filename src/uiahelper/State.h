// What an element says about its place in a grid, its selection, its window
// state and its text. Every read is fresh; a missing pattern gives the
// default named at each function.
#pragma once

#include "uiahelper/Common.h"

#include <string>
#include <vector>

namespace UiaHelper {

// Two numbers, column first: {columns, rows} of a grid, {column, row} of an
// item; {-1, -1} without the pattern.
using GridPair = std::vector<int>;

GridPair GetGridColumnAndRowCount(IUIAutomationElement* element);
// The item at a column and row (asked of the platform row first), or null.
IUIAutomationElement* GetGridItem(IUIAutomationElement* element, int column, int row);
GridPair GetGridItemColumnAndRow(IUIAutomationElement* element);
// The column headers of a table, failed entries skipped; empty for no table.
ElementList GetColumnHeaders(IUIAutomationElement* element);
// By the SelectionItem pattern, or without it by the MSAA state "SELECTED".
bool IsSelected(IUIAutomationElement* element);
// WindowInteractionState, through the top-level frame for a core window; -1
// without the Window pattern.
int GetControlInteractionState(IUIAutomationElement* element);
bool IsControlModal(IUIAutomationElement* element);
bool HasWindowPattern(IUIAutomationElement* element);
// The Text pattern's whole document, or the value when there is no text to
// be had; empty for a null element.
std::wstring GetControlText(IUIAutomationElement* element);
bool IsTextReadOnly(IUIAutomationElement* element);

}  // namespace UiaHelper
