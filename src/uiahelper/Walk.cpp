// Steps through the element tree, always in the raw view.
#include "uiahelper/UiaHelper.h"

#include "common/Logging.h"
#include "common/ComPtr.h"

using tolva::ComPtr;

namespace UiaHelper {

namespace {
tolva::Logger& logger = tolva::Log::getLogger("tolva.uia.UiaHelper");
}  // namespace

IUIAutomationElement* GetParent(IUIAutomationElement* element) {
    const tolva::AutomationRef automation = tolva::automation();
    if (!automation) {
        return nullptr;
    }
    ComPtr<IUIAutomationTreeWalker> walker;
    HRESULT hr = automation->get_RawViewWalker(walker.put());
    if (FAILED(hr) || !walker) {
        TOLVA_LOG(logger, 1, "hr: " << std::hex << hr);
        return nullptr;
    }
    IUIAutomationElement* parent = nullptr;
    walker->GetParentElement(element, &parent);
    return parent;
}

bool IsDesktopElement(IUIAutomationElement* element) {
    const tolva::AutomationRef automation = tolva::automation();
    if (!element || !automation) {
        return false;
    }
    ComPtr<IUIAutomationElement> desktop;
    if (FAILED(automation->GetRootElement(desktop.put())) || !desktop) {
        return false;
    }
    BOOL same = FALSE;
    HRESULT hr = automation->CompareElements(element, desktop.get(), &same);
    return SUCCEEDED(hr) && same == 1;
}

}  // namespace UiaHelper
