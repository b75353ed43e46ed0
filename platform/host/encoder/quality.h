#pragma once

#include "encoder/encoder_settings.h"

namespace zu3host {

/**
 * Puts what zu3_host_quality() asked for, which is used up, into the settings of an encoder that is
 * being opened, if those have no bit rate.
 */
void take_quality(EncoderSettings& settings);

} // namespace zu3host
