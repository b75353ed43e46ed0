#pragma once

#include <CLI/App.hpp>
#include <string>

namespace client {

/**
 * What is wrong with a command line that could not be read, with which word of it, and what would
 * be right.
 */
std::string what_is_wrong(const CLI::App& app, const CLI::ParseError& error);

} // namespace client
