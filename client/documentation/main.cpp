// Writes the manual page and the completions into a folder; run while building.
#include <cstdio>
#include <fstream>

#include "documentation/outline.h"

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: screenrecord_documentation FOLDER\n");
        return 2;
    }
    const std::string folder = argv[1];
    const struct {
        const char* name;
        std::string (*make)();
    } files[] = {{"/screenrecord.1", client::manual_page},
                 {"/screenrecord", client::bash_completion},
                 {"/_screenrecord", client::zsh_completion},
                 {"/screenrecord.fish", client::fish_completion}};
    for (const auto& file : files) {
        std::ofstream out(folder + file.name);
        if (!(out << file.make() << std::flush)) {
            std::fprintf(stderr, "cannot write %s%s\n", folder.c_str(), file.name);
            return 1;
        }
    }
    return 0;
}
