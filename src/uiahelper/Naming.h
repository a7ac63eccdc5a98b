// An element's identity and text: runtime id, name, value, automation id,
// framework, bounds and accessibility texts.
#pragma once

#include "uiahelper/Common.h"

#include <string>

namespace UiaHelper {

}  // namespace UiaHelper
