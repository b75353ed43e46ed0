#pragma once

#include <string>
#include <vector>

namespace client {

/** An option as the manual page and the completions need it. */
struct OptionOutline {
    /** without its dash; empty = none */
    std::string letter;
    /** without its dashes */
    std::string name;
    /** placeholder of its value in help, such as SECONDS; empty = it has no value */
    std::string value;
    /** the words among its values */
    std::vector<std::string> choices;
    bool takes_file = false;
    bool required = false;
    std::string text;
};

struct CommandOutline {
    /** empty = the program itself, before a command */
    std::string name;
    std::string text;
    std::vector<OptionOutline> options;
    /** one of these words follows; empty = none does */
    std::vector<std::string> words;
    /** another command's name follows */
    bool takes_command = false;
    /** names of files follow */
    bool takes_files = false;
};

/** The program first, then its commands, from the same description as help. */
std::vector<CommandOutline> outline();

/** Each generator returns a whole file. */
std::string manual_page();
std::string bash_completion();
std::string zsh_completion();
std::string fish_completion();

} // namespace client
