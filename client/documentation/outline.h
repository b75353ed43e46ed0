#pragma once

#include <string>
#include <vector>

namespace client {

/** An option as the manual page and the completions need it. */
struct OptionOutline {
    std::string letter; /**< without its dash; empty = none */
    std::string name;   /**< without its dashes */
    std::string value;  /**< what stands for its value in help, such as SECONDS; empty = it takes none */
    std::vector<std::string> choices; /**< the only values, where there are such */
    bool takes_file = false;
    bool required = false;
    std::string text;
};

struct CommandOutline {
    std::string name; /**< empty = the program itself, before a command */
    std::string text;
    std::vector<OptionOutline> options;
    bool takes_command = false; /**< another command's name follows */
};

/** What can be typed: the program first, then its commands. Made from the description that help is made from.
 */
std::vector<CommandOutline> outline();

/** What is printed by each generator: a whole file. */
std::string manual_page();
std::string bash_completion();
std::string zsh_completion();
std::string fish_completion();

} // namespace client
