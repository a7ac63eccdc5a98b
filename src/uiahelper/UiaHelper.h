// Stateless operations on UI Automation elements, by topic. Functions that
// return an element give the caller one reference; elements passed in are
// borrowed. Element lists are in order of discovery, one reference per
// non-null entry.
#pragma once

#include "uiahelper/Actions.h"
#include "uiahelper/Common.h"
#include "uiahelper/Input.h"
#include "uiahelper/Legacy.h"
#include "uiahelper/Naming.h"
#include "uiahelper/State.h"
#include "uiahelper/Surface.h"
#include "uiahelper/Tree.h"

namespace UiaHelper {

// The screen's scaling as a factor (1.5 at 150 %), read once per process.
double GetScalingFactor();

}  // namespace UiaHelper
