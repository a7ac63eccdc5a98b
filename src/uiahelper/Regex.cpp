// Boost.Regex rather than std::regex: the standard library's matcher recurses
// once per character, and a name of a few thousand characters overflows a
// thread's stack. Boost's matcher keeps its states in heap blocks and gives up
// with an error where they would run out.
#include "uiahelper/Regex.h"

#include "common/Logging.h"

#include <boost/regex.hpp>

namespace UiaHelper {

namespace {

tolva::Logger& logger = tolva::Log::getLogger("tolva.uia.UiaHelper");

// The standard library's traits, as std::wregex has them: \d, \s and \w
// classify characters as the C++ locale does.
using Engine = boost::basic_regex<wchar_t, boost::cpp_regex_traits<wchar_t>>;

// Perl's syntax is Boost's ECMAScript; these turn off its two Perl defaults
// that ECMAScript doesn't have: '^' and '$' at line breaks, and '.' matching
// a line break.
const boost::regex_constants::syntax_option_type GRAMMAR =
    boost::regex_constants::ECMAScript | boost::regex_constants::no_mod_m | boost::regex_constants::no_mod_s;

}  // namespace

struct Regex::Compiled {
    Engine regex;
};

Regex::Regex(const std::wstring& expression) {
    try {
        compiled_.reset(new Compiled{Engine(expression, GRAMMAR)});
    } catch (const std::exception& e) {
        error_ = e.what();
        if (error_.empty()) {
            error_ = "Malformed regular expression";
        }
    }
}

Regex::~Regex() = default;

bool Regex::matches(const std::wstring& text) const {
    std::vector<std::wstring> groups;
    return matches(text, groups);
}

bool Regex::matches(const std::wstring& text, std::vector<std::wstring>& groups) const {
    groups.clear();
    if (!compiled_) {
        return false;
    }
    try {
        boost::match_results<std::wstring::const_iterator> match;
        if (!boost::regex_match(text, match, compiled_->regex)) {
            return false;
        }
        for (std::size_t i = 1; i < match.size(); ++i) {
            groups.push_back(match[i].matched ? match[i].str() : std::wstring());
        }
        return true;
    } catch (const std::exception& e) {
        // Boost's "too complex" and "out of stack space": the text is taken as
        // not matching rather than searched for ever.
        TOLVA_LOG(logger, 3, "Expression too complex for a text of " << text.size() << " characters: " << e.what());
        groups.clear();
        return false;
    }
}

}  // namespace UiaHelper
