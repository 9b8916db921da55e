// expression.hpp - VISA resource expressions as the bench's viFindRsrc
// understands them: "?" any one character, "*" any run of characters,
// "[a-c9]" / "[^a-c9]" one character of / not of a list, "(a|b)" and a top-level
// "a|b" alternatives, "\" makes the next character ordinary. Letters match
// regardless of case; the whole name must match.
#pragma once

#include <optional>
#include <string>

namespace qbsim::detail {

// nullopt: the expression is malformed (unbalanced group or list).
std::optional<bool> matchResourceExpression(const std::string &expression,
                                            const std::string &name);

}  // namespace qbsim::detail
