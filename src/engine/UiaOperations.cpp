// The operations that the natives call on the automation back end.
//
// The control table can't create controls yet (elements get handles through
// their text keys, which this build doesn't build), so no handle is valid and
// checkHandle turns every one away; the operations behind the check report
// that they are not built yet and give their defaults.
#include "engine/Uia.h"

#include "bridge/Logging.h"
#include "element/UiaControl.h"
#include "engine/EngineRunnables.h"
#include "engine/UiaEventQueue.h"
#include "recording/UiaAutoEventHandler.h"
#include "uiahelper/UiaHelper.h"

namespace tolva {

namespace {

Logger& logger = Log::getLogger("tolva.Uia");

void notYet(const char* operation) {
    TOLVA_LOG(logger, 3, "Not yet implemented: " << operation);
}

}  // namespace

int Uia::checkHandle(Handle handle) {
    TOLVA_LOG(logger, 7, "handle: " << std::hex << handle);
    if (!UiaControl::isValidHandle(handle)) {
        TOLVA_LOG(logger, 3, "Invalid handle");
        return 1;
    }
    return 0;
}

Array<Handle> Uia::getToplevels() {
    notYet("getToplevels");
    return Array<Handle>();
}

Array<Handle> Uia::getElementsByProperty(Handle, const std::wstring&, const std::wstring&) {
    notYet("getElementsByProperty");
    return Array<Handle>();
}

Array<Handle> Uia::findAllWindows(Handle) {
    notYet("findAllWindows");
    return Array<Handle>();
}

Array<Handle> Uia::getChildren(Handle) {
    notYet("getChildren");
    return Array<Handle>();
}

Array<std::wstring> Uia::getChildrenWithAttributes(Handle, NameList&) {
    notYet("getChildrenWithAttributes");
    return Array<std::wstring>();
}

Array<std::wstring> Uia::getAttributes(Handle, NameList& names) {
    notYet("getAttributes");
    return Array<std::wstring>(names.size());
}

void Uia::getHierarchyWithAttributes(Handle, NameList&, Array<Handle>&, std::vector<std::wstring>&, int) {
    notYet("getHierarchyWithAttributes");
}

Handle Uia::getParent(Handle) {
    notYet("getParent");
    return 0;
}

Handle Uia::getElementFromPoint(int x, int y) {
    TOLVA_LOG(logger, 7, "x: " << x << ", y: " << y);
    notYet("getElementFromPoint");
    return 0;
}

std::int32_t Uia::highlight(Handle, int, int) {
    notYet("highlight");
    return 0;
}

std::int32_t Uia::enableEventListeners(std::int32_t mode) {
    TOLVA_LOG(logger, 7, "mode: 0x" << std::hex << mode);
    if (mode == UiaAutoEventHandler::listenersMode()) {
        return mode;
    }
    UiaEventQueue::getInstance()->invokeNow(new EventHandlerRegistrator(this, mode));
    UiaAutoEventHandler::setListenersMode(mode);
    return mode;
}

void Uia::enableCheckMode(bool, std::int32_t) {
    notYet("enableCheckMode");
}

void Uia::enableRecordingMode(bool, std::int32_t) {
    notYet("enableRecordingMode");
}

void Uia::simulateMouseEvent(Handle, int, int, int, int, int, int) {
    notYet("simulateMouseEvent");
}

void Uia::simulateKeyStroke(Handle, wchar_t, int, int) {
    notYet("simulateKeyStroke");
}

void Uia::setFocus(Handle) {
    notYet("setFocus");
}

bool Uia::moveControl(Handle, int, int) {
    notYet("moveControl");
    return false;
}

bool Uia::resizeControl(Handle, int, int) {
    notYet("resizeControl");
    return false;
}

bool Uia::closeControl(Handle) {
    notYet("closeControl");
    return false;
}

bool Uia::bringToFront(Handle) {
    notYet("bringToFront");
    return false;
}

bool Uia::doDefaultAction(Handle) {
    notYet("doDefaultAction");
    return false;
}

bool Uia::invoke(Handle) {
    notYet("invoke");
    return false;
}

void Uia::select(Handle, int) {
    notYet("select");
}

bool Uia::toggle(Handle, int) {
    notYet("toggle");
    return false;
}

bool Uia::expand(Handle, int) {
    notYet("expand");
    return false;
}

bool Uia::scroll(Handle, double, double) {
    notYet("scroll");
    return false;
}

int Uia::scrollIntoView(Handle) {
    notYet("scrollIntoView");
    return 0;
}

}  // namespace tolva
