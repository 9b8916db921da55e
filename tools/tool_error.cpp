#include "tool_error.hpp"

#include <qbvisa.h>

namespace qbtool {

std::string libraryMessage(int64_t code) {
  // The library shortens its own copy of a message for good when asked for
  // fewer characters than the text has; a length above every text avoids it.
  char text[320] = {};
  if (QBVISA_ErrorCodeToMessage(code, text, sizeof text - 1) != 0)
    return "unknown status";
  std::string message(text);
  while (!message.empty() && (message.back() == ' ' || message.back() == '\n'))
    message.pop_back();
  return message;
}

static std::string describe(int32_t code, const std::string &detail) {
  std::string text = "error " + std::to_string(code) + ": " + libraryMessage(code);
  if (!detail.empty()) text += " (" + detail + ")";
  return text;
}

ToolError::ToolError(int32_t code, const std::string &detail)
    : std::runtime_error(describe(code, detail)), code_(code) {}

int32_t check(int32_t status, const std::string &detail) {
  if (status < 0) throw ToolError(status, detail);
  return status;
}

}  // namespace qbtool
