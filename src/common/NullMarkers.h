// Wide-text stand-ins for Java's null in native code that carries only text.
#pragma once

namespace tolva {

// A null preference value; handed to Preferences::setPreference it erases the key.
extern const wchar_t* const NULL_JAVA_STRING;
// An attribute without a value in a flat result array; natives turn it into null.
extern const wchar_t* const NULL_ATTRIBUTE;

}  // namespace tolva
