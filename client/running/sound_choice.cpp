#include "running/sound_choice.h"

#include <algorithm>
#include <cstdlib>

#include "command_line/options.h"
#include "machine/host.h"
#include "process/messages.h"

namespace client {

void check_sound_name(const std::string& name)
{
    std::vector<std::string> known = choices_of(sound_words);
    if (std::find(known.begin(), known.end(), name) != known.end())
        return;
    const auto sources = list_sound_sources();
    if (!sources)
        return;
    for (const SoundSource& source : *sources)
        known.push_back(source.name);
    if (std::find(known.begin(), known.end(), name) == known.end())
        throw Failure("there is no sound source '" + name + "', only " + listed(known, "and"),
                      ExitCode::usage);
}

void check_chosen_sound()
{
    const char* const server = secure_getenv("ZU3_AUDIO");
    const char* const name = secure_getenv("ZU3_SOUND");
    const bool by_server = !server || !*server || std::string(server) == "pulse";
    if (by_server && name && *name)
        check_sound_name(name);
}

} // namespace client
