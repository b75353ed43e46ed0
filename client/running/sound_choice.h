#pragma once

#include <string>

namespace client {

/**
 * Throws Failure (usage) if `name`, a value of --sound or ZU3_SOUND, is a name that the sound
 * server does not have. Asks it, up to 3 s, for names only: not for desktop, microphone and the
 * like. Without a server any name passes, since the source may come with it.
 */
void check_sound_name(const std::string& name);

/** check_sound_name() of what is recorded: ZU3_SOUND, as --sound sets it. */
void check_chosen_sound();

} // namespace client
