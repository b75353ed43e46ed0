#pragma once

#include <string>

namespace client {

/**
 * Throws Failure (usage) if `name`, a value of --sound or ZU3_SOUND, names a source that the sound
 * server lacks. Asks the server, for up to 3 s, only about names, not about words such as desktop
 * and microphone. Without a server any name passes, since the server may start later.
 */
void check_sound_name(const std::string& name);

/** check_sound_name() of ZU3_SOUND, which --sound sets. */
void check_chosen_sound();

} // namespace client
