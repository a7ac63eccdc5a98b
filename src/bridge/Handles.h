// Element handles between Java and the driver. A handle is a Java long whose
// pointer-sized low part is the address of a control (0: no element). On the
// way in, a 32-bit driver reads only the low word; on the way out, the value is
// widened by sign extension, so that an address at or above 0x80000000 comes
// back to Java as a negative long.
#pragma once

#include "common/Handle.h"

#include <jni.h>

namespace tolva {

inline Handle handleFromJava(jlong value) {
    return static_cast<Handle>(value);  // keeps the low word in a 32-bit build
}

inline jlong handleToJava(Handle handle) {
    return static_cast<jlong>(handle);  // sign extension in a 32-bit build
}

}  // namespace tolva
