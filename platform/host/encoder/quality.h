#pragma once

#include "encoder/encoder_settings.h"

namespace zu3host {

/**
 * Moves the request of zu3_host_quality() or zu3_host_bit_rate() into the settings of an encoder
 * that opens, if those have no bit rate. The request is then used up in any case.
 */
void take_quality(EncoderSettings& settings);

} // namespace zu3host
