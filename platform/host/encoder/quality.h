#pragma once

#include "encoder/encoder_settings.h"

namespace zu3host {

/**
 * Puts the request of zu3_host_quality() or zu3_host_bit_rate(), which is used up, into the settings
 * of an encoder that opens, if those have no bit rate.
 */
void take_quality(EncoderSettings& settings);

} // namespace zu3host
