// Regular expressions of the ECMAScript grammar, case-sensitive, that match
// only whole texts: window titles, names and classes, and the connection
// parameters. Matching keeps its backtracking on the heap, so neither a long
// text nor a long pattern can overflow the stack of the thread that matches.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace UiaHelper {

class Regex {
public:
    // Compiles the expression. A malformed one gives a pattern that matches
    // nothing, with the reason in error().
    explicit Regex(const std::wstring& expression);
    ~Regex();
    Regex(const Regex&) = delete;
    Regex& operator=(const Regex&) = delete;

    bool valid() const { return compiled_ != nullptr; }
    // Why the expression didn't compile; empty for a valid pattern.
    const std::string& error() const { return error_; }

    // True if the whole text matches. Never throws: a match that the engine
    // gives up on as too complex for the text is no match, logged at level 3.
    bool matches(const std::wstring& text) const;
    // As above, and on a match `groups` holds the text of each group, group 1
    // first; a group that took no part is empty.
    bool matches(const std::wstring& text, std::vector<std::wstring>& groups) const;

private:
    struct Compiled;
    std::unique_ptr<const Compiled> compiled_;
    std::string error_;
};

}  // namespace UiaHelper
