// tool_error.hpp - how the qbvisa tool reports a failure: the library's own
// status code and its fixed message, plus what the tool knows about the case.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace qbtool {

// The library's message for `code`, without the blanks some texts end with.
std::string libraryMessage(int64_t code);

// A failure reported as "error CODE: MESSAGE[ (detail)]".
class ToolError : public std::runtime_error {
 public:
  ToolError(int32_t code, const std::string &detail = {});
  int32_t code() const { return code_; }

 private:
  int32_t code_;
};

// Throws a ToolError when `status` is negative; returns it otherwise.
int32_t check(int32_t status, const std::string &detail = {});

// Wrong use of the tool itself (bad option value): exit status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace qbtool
