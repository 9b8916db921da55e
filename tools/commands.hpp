// commands.hpp - the work behind each qbvisa subcommand. Every function
// prints its result on standard output and throws ToolError when the library
// or the chassis refuses, UsageError when a value makes no sense.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "chassis.hpp"
#include "matrix_picture.hpp"

namespace qbtool {

void scan(Bench &bench);
void open(Bench &bench, const std::string &resource, uint64_t slot);
// Opens `openWords` and closes `closeWords` in one switching frame; the other
// crosspoints keep the state they have now.
void change(Bench &bench, const std::string &resource,
            const std::vector<std::string> &closeWords,
            const std::vector<std::string> &openWords);
void clear(Bench &bench, const std::string &resource);
void show(Bench &bench, const std::string &resource, const PictureOptions &options);
void info(Bench &bench, const std::string &resource);
void set(Bench &bench, const std::string &resource, const std::string &setting,
         const std::vector<std::string> &values);
void update(Bench &bench, const std::string &resource, const std::string &file);
// Sends each line and prints its reply; with no line, reads lines from the
// terminal (line editing, history) or from standard input.
void scpi(Bench &bench, const std::string &resource,
          const std::vector<std::string> &lines);

// The settings `set` knows, for the help text and for checking.
const std::vector<std::string> &settingNames();

}  // namespace qbtool
