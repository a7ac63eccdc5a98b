// Control patterns of the simulated UI Automation platform.
//
// A test attaches a source to a node:
//   auto slider = fakeuia::attach<fakeuia::RangeValueSource>(node, 5.0, 0.0, 10.0);
//   slider->clamps = true;
// and every GetCurrentPattern[As] on an element of that node then hands out a
// NEW pattern object (reference count 1 for the caller, counted by the
// platform as "pattern") that answers the pattern's IUIAutomation...Pattern
// interface and IUnknown from the source's state. The object keeps its source
// alive and refers to the node.
//
// How the pattern objects behave:
// - A call on a pattern object whose node has left the tree fails with
//   kElementNotAvailable (checked first, after null out-parameters).
// - Then an injected failure of the source (fail("SetValue", hr)) answers hr.
// - get_Current* / GetCurrent* answer from the source's state; the
//   get_Cached* / GetCached* forms answer kNotCached (unless a failure is
//   injected for them), without being recorded: no cache is ever built.
// - Element-valued results are new element objects of the platform for the
//   nodes (a removed node still gets its element; reads on it then fail with
//   kElementNotAvailable, as with the real platform); lists are the platform's
//   IUIAutomationElementArray; BSTRs are SysAllocString'd, owned by the caller.
// - Action counters (and argument records) count every call that reaches the
//   source, i.e. every call on a node in the tree, including calls answered
//   with an injected failure or refused by the state.
// - Anything not modeled answers E_NOTIMPL and is recorded in
//   Platform::unsupportedCalls() as "IUIAutomationXPattern::Method".
//
// Threads: the driver may call pattern objects from several threads. Each
// source guards its public fields with its mutex `mu`: a test that changes
// fields while driver threads may be calling locks it (std::lock_guard
// lock(source->mu)). Setting fields before handing the node to the driver, or
// reading them after the driver's calls returned, needs no lock. The source
// never holds `mu` while it calls out of itself (platform, node, caller).
//
// Sources must be owned by a std::shared_ptr (attach() does that).
#pragma once

#include "FakeUia.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace fakeuia {

// HRESULTs of the platform as typed constants (the headers give plain numbers).
constexpr HRESULT kElementNotEnabled = static_cast<HRESULT>(0x80040200L);  // UIA_E_ELEMENTNOTENABLED
constexpr HRESULT kInvalidOperation = static_cast<HRESULT>(0x80131509L);   // UIA_E_INVALIDOPERATION
// UIA_ScrollPatternNoScroll: the percent of an axis that does not scroll.
constexpr double kNoScroll = -1;
// Text attribute ids the simulation models (not in every SDK's headers).
constexpr TEXTATTRIBUTEID kIsReadOnlyAttributeId = 40015;  // UIA_IsReadOnlyAttributeId
constexpr TEXTATTRIBUTEID kFontNameAttributeId = 40005;    // UIA_FontNameAttributeId

// The part all pattern sources share: the mutex, failure injection, and the
// switch to answer "not supported now" (open() gives S_OK with null).
class PatternSourceBase : public PatternSource, public std::enable_shared_from_this<PatternSourceBase> {
public:
    PatternSourceBase(const PatternSourceBase&) = delete;
    PatternSourceBase& operator=(const PatternSourceBase&) = delete;

    // Guards every public field of the source (and of the derived source).
    mutable std::mutex mu;
    // False: GetCurrentPattern[As] answers S_OK with null although attached.
    bool available = true;

    // `method` is a method name of the pattern's interface ("SetValue",
    // "get_CurrentValue", ...): every call of it on this source's pattern
    // objects then answers hr. Unknown names throw std::invalid_argument.
    void fail(const std::string& method, HRESULT hr);
    void clearFailure(const std::string& method);
    void clearFailures();

    // "IUIAutomationValuePattern", ...
    const char* interfaceName() const { return interface_; }

    // Used by the pattern objects: the injected failure of `method`, S_OK if none.
    HRESULT injectedFailure(const char* method) const;

protected:
    PatternSourceBase(const char* interfaceName, const char* const* methods, size_t methodCount);

private:
    const char* interface_;
    const char* const* methods_;
    size_t methodCount_;
    std::map<std::string, HRESULT> failures_;  // guarded by mu
};

// Makes the source, attaches it to the node under S::id, and returns it.
template <class S, class... A>
std::shared_ptr<S> attach(Node& node, A&&... args) {
    auto source = std::make_shared<S>(std::forward<A>(args)...);
    node.attachPattern(S::id, source);
    return source;
}

// --- Invoke ----------------------------------------------------------------
class InvokeSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_InvokePatternId;
    InvokeSource();
    HRESULT open(Node& node, REFIID riid, void** object) override;

    int invokeCount = 0;  // Invoke calls
};

// --- Selection (the container) ---------------------------------------------------
class SelectionSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_SelectionPatternId;
    SelectionSource();
    HRESULT open(Node& node, REFIID riid, void** object) override;

    bool canSelectMultiple = false;
    bool isSelectionRequired = false;
    std::vector<Node*> selection;  // GetCurrentSelection, in this order
};

// --- Value ------------------------------------------------------------------------
// SetValue on a read-only one answers UIA_E_ELEMENTNOTENABLED and keeps the value.
class ValueSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_ValuePatternId;
    ValueSource();
    explicit ValueSource(std::wstring value, bool readOnly = false);
    HRESULT open(Node& node, REFIID riid, void** object) override;

    std::wstring value;
    bool readOnly = false;
    int setValueCalls = 0;
};

// --- RangeValue ---------------------------------------------------------------------
// SetValue stores the value clamped to [minimum, maximum] when `clamps` (and
// answers S_OK, as a slider that silently clamps does); without `clamps` a
// value outside the range answers E_INVALIDARG and is not stored. Read-only:
// UIA_E_ELEMENTNOTENABLED.
class RangeValueSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_RangeValuePatternId;
    RangeValueSource();
    RangeValueSource(double value, double minimum, double maximum);
    HRESULT open(Node& node, REFIID riid, void** object) override;

    double value = 0;
    double minimum = 0;
    double maximum = 100;
    double smallChange = 1;
    double largeChange = 10;
    bool readOnly = false;
    bool clamps = true;
    int setValueCalls = 0;
    std::vector<double> setValueArguments;  // as passed, before clamping
};

// --- Scroll -------------------------------------------------------------------------
// Percents are kNoScroll (-1, UIA_ScrollPatternNoScroll) for an axis that cannot scroll.
// SetScrollPercent: -1 leaves an axis alone; other values outside 0..100 answer
// E_INVALIDARG; a value for an axis that is not scrollable answers
// UIA_E_INVALIDOPERATION. Scroll moves a scrollable axis by smallStep /
// largeStep percent (clamped to 0..100); an amount other than
// ScrollAmount_NoAmount on an axis that is not scrollable answers
// UIA_E_INVALIDOPERATION. Nothing changes when a call is refused.
class ScrollSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_ScrollPatternId;
    ScrollSource();
    HRESULT open(Node& node, REFIID riid, void** object) override;

    double horizontalPercent = -1;
    double verticalPercent = -1;
    double horizontalViewSize = 100;
    double verticalViewSize = 100;
    bool horizontallyScrollable = false;
    bool verticallyScrollable = false;
    double smallStep = 1;
    double largeStep = 10;
    int scrollCalls = 0;
    int setScrollPercentCalls = 0;
    std::vector<std::pair<ScrollAmount, ScrollAmount>> scrollArguments;    // (horizontal, vertical)
    std::vector<std::pair<double, double>> setScrollPercentArguments;      // (horizontal, vertical)
};

// --- ExpandCollapse -------------------------------------------------------------------
// Expand -> ExpandCollapseState_Expanded, Collapse -> ExpandCollapseState_Collapsed;
// in state LeafNode both answer UIA_E_INVALIDOPERATION.
class ExpandCollapseSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_ExpandCollapsePatternId;
    ExpandCollapseSource();
    explicit ExpandCollapseSource(ExpandCollapseState state);
    HRESULT open(Node& node, REFIID riid, void** object) override;

    ExpandCollapseState state = ExpandCollapseState_Collapsed;
    int expandCalls = 0;
    int collapseCalls = 0;
};

// --- Grid -------------------------------------------------------------------------------
// GetItem(row, column): the element of cells[row][column]; E_INVALIDARG when
// row or column is outside rowCount / columnCount; S_OK with null when the cell
// is missing from `cells` (or null there).
class GridSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_GridPatternId;
    GridSource();
    // rowCount = cells.size(), columnCount = the longest row.
    explicit GridSource(std::vector<std::vector<Node*>> cells);
    HRESULT open(Node& node, REFIID riid, void** object) override;

    int rowCount = 0;
    int columnCount = 0;
    std::vector<std::vector<Node*>> cells;         // row-major
    std::vector<std::pair<int, int>> getItemCalls;  // (row, column) of every GetItem
};

// --- GridItem ---------------------------------------------------------------------------
class GridItemSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_GridItemPatternId;
    GridItemSource();
    GridItemSource(int row, int column, Node* containingGrid = nullptr);
    HRESULT open(Node& node, REFIID riid, void** object) override;

    int row = 0;
    int column = 0;
    int rowSpan = 1;
    int columnSpan = 1;
    Node* containingGrid = nullptr;  // null: get_CurrentContainingGrid gives S_OK with null
};

// --- MultipleView -------------------------------------------------------------------------
// GetViewName / SetCurrentView of a view id not in `views` answer E_INVALIDARG.
class MultipleViewSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_MultipleViewPatternId;
    MultipleViewSource();
    HRESULT open(Node& node, REFIID riid, void** object) override;

    int currentView = 0;
    std::vector<std::pair<int, std::wstring>> views;  // (id, name), GetCurrentSupportedViews in this order
    int setCurrentViewCalls = 0;
};

// --- Window ---------------------------------------------------------------------------------
// Close counts and, if closeRemovesNode, removes the node from the tree.
// SetWindowVisualState stores the state; Maximized without canMaximize or
// Minimized without canMinimize answers UIA_E_INVALIDOPERATION.
// WaitForInputIdle answers S_OK with waitForInputIdleResult (TRUE).
class WindowSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_WindowPatternId;
    WindowSource();
    HRESULT open(Node& node, REFIID riid, void** object) override;

    bool canMaximize = true;
    bool canMinimize = true;
    bool isModal = false;
    bool isTopmost = false;
    WindowVisualState visualState = WindowVisualState_Normal;
    WindowInteractionState interactionState = WindowInteractionState_ReadyForUserInteraction;
    bool closeRemovesNode = false;
    BOOL waitForInputIdleResult = TRUE;
    int closeCalls = 0;
    int setWindowVisualStateCalls = 0;
    int waitForInputIdleCalls = 0;
    std::vector<int> waitForInputIdleArguments;  // milliseconds
};

// --- SelectionItem --------------------------------------------------------------------------
// Select / AddToSelection set isSelected, RemoveFromSelection clears it
// (the container's SelectionSource is not changed).
class SelectionItemSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_SelectionItemPatternId;
    SelectionItemSource();
    explicit SelectionItemSource(bool isSelected, Node* container = nullptr);
    HRESULT open(Node& node, REFIID riid, void** object) override;

    bool isSelected = false;
    Node* container = nullptr;  // null: get_CurrentSelectionContainer gives S_OK with null
    int selectCalls = 0;
    int addToSelectionCalls = 0;
    int removeFromSelectionCalls = 0;
};

// --- Dock -----------------------------------------------------------------------------------------
class DockSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_DockPatternId;
    DockSource();
    HRESULT open(Node& node, REFIID riid, void** object) override;

    DockPosition position = DockPosition_None;
    int setDockPositionCalls = 0;
};

// --- Table ----------------------------------------------------------------------------------------
// Header arrays keep removed header nodes in their place: GetElement on such an
// entry works, reads on that element fail with kElementNotAvailable. A null
// entry stands for a header the provider can't give: GetElement fails there
// with E_FAIL.
class TableSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_TablePatternId;
    TableSource();
    HRESULT open(Node& node, REFIID riid, void** object) override;

    std::vector<Node*> columnHeaders;
    std::vector<Node*> rowHeaders;
    RowOrColumnMajor major = RowOrColumnMajor_RowMajor;
};

// --- TableItem ------------------------------------------------------------------------------------
class TableItemSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_TableItemPatternId;
    TableItemSource();
    HRESULT open(Node& node, REFIID riid, void** object) override;

    std::vector<Node*> columnHeaderItems;
    std::vector<Node*> rowHeaderItems;
};

// --- Text -----------------------------------------------------------------------------------------
// get_DocumentRange: a new IUIAutomationTextRange (counted as "textrange")
// over the whole document: GetText(maxLength) gives the current documentText
// (cut at maxLength when it is >= 0), GetAttributeValue(kIsReadOnlyAttributeId)
// gives VT_BOOL readOnly, other attributes the platform's reserved
// not-supported value; Clone gives another such range, GetEnclosingElement the
// node's element. The other range methods, and RangeFromPoint, RangeFromChild,
// GetSelection, GetVisibleRanges of the pattern, are unsupported.
class TextSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_TextPatternId;
    TextSource();
    explicit TextSource(std::wstring documentText, bool readOnly = false);
    HRESULT open(Node& node, REFIID riid, void** object) override;

    std::wstring documentText;
    bool readOnly = false;
    SupportedTextSelection supportedTextSelection = SupportedTextSelection_Single;
    int getTextCalls = 0;  // IUIAutomationTextRange::GetText on ranges of this source
};

// --- Toggle ---------------------------------------------------------------------------------------
// Toggle cycles Off -> On -> (Indeterminate if threeState) -> Off.
class ToggleSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_TogglePatternId;
    ToggleSource();
    explicit ToggleSource(ToggleState state, bool threeState = false);
    HRESULT open(Node& node, REFIID riid, void** object) override;

    ToggleState state = ToggleState_Off;
    bool threeState = false;
    int toggleCalls = 0;
};

// --- Transform ------------------------------------------------------------------------------------
// Move(x, y) moves the node's bounds (left/top to x/y, size kept); Resize(w, h)
// sets right = left + w, bottom = top + h. Without canMove / canResize /
// canRotate the call answers UIA_E_INVALIDOPERATION and changes nothing.
// Rotate only counts.
class TransformSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_TransformPatternId;
    TransformSource();
    TransformSource(bool canMove, bool canResize, bool canRotate = false);
    HRESULT open(Node& node, REFIID riid, void** object) override;

    bool canMove = true;
    bool canResize = true;
    bool canRotate = false;
    std::vector<std::pair<double, double>> moveArguments;    // (x, y)
    std::vector<std::pair<double, double>> resizeArguments;  // (width, height)
    int rotateCalls = 0;
    std::vector<double> rotateArguments;
};

// --- ScrollItem -----------------------------------------------------------------------------------
class ScrollItemSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_ScrollItemPatternId;
    ScrollItemSource();
    HRESULT open(Node& node, REFIID riid, void** object) override;

    int scrollIntoViewCalls = 0;
};

// --- LegacyIAccessible ----------------------------------------------------------------------------
// DoDefaultAction counts and answers defaultActionResult. Select(flags)
// records the flags; SetValue stores the value. GetIAccessible is unsupported.
class LegacyIAccessibleSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_LegacyIAccessiblePatternId;
    LegacyIAccessibleSource();
    HRESULT open(Node& node, REFIID riid, void** object) override;

    int childId = 0;  // CHILDID_SELF
    std::wstring name;
    std::wstring value;
    std::wstring description;
    std::wstring help;
    std::wstring keyboardShortcut;
    std::wstring defaultAction;
    DWORD role = 0;
    DWORD state = 0;
    std::vector<Node*> selection;  // GetCurrentSelection
    HRESULT defaultActionResult = S_OK;
    int doDefaultActionCalls = 0;
    int selectCalls = 0;
    std::vector<long> selectFlags;
    int setValueCalls = 0;
};

// --- ItemContainer --------------------------------------------------------------------------------
// FindItemByProperty searches `items` after pStartAfter (from the start when
// null; E_INVALIDARG when not among them): propertyId 0 finds the next item,
// otherwise the next whose current property equals the value (the platform's
// I4, BSTR and BOOL properties; other ids or value types answer E_INVALIDARG).
// Nothing found: S_OK with null.
class ItemContainerSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_ItemContainerPatternId;
    ItemContainerSource();
    HRESULT open(Node& node, REFIID riid, void** object) override;

    std::vector<Node*> items;
    int findItemByPropertyCalls = 0;
};

// --- VirtualizedItem ------------------------------------------------------------------------------
class VirtualizedItemSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_VirtualizedItemPatternId;
    VirtualizedItemSource();
    HRESULT open(Node& node, REFIID riid, void** object) override;

    int realizeCalls = 0;
};

// --- SynchronizedInput ----------------------------------------------------------------------------
class SynchronizedInputSource : public PatternSourceBase {
public:
    static constexpr PATTERNID id = UIA_SynchronizedInputPatternId;
    SynchronizedInputSource();
    HRESULT open(Node& node, REFIID riid, void** object) override;

    int startListeningCalls = 0;
    std::vector<SynchronizedInputType> startListeningArguments;
    int cancelCalls = 0;
};

}  // namespace fakeuia
