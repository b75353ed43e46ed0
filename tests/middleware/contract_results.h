/** What the contract lets each call answer besides its plain success. */
#pragma once

#include <string>
#include <vector>

#include "zu3/types.h"

namespace middleware {

/**
 * The answers of `call` ("ZU_VENC_SetAttr:0x1" like "ZU_VENC_SetAttr") other than full success, the
 * plain failure first, then also successes without a result. Empty for calls that cannot fail.
 */
std::vector<s64> contract_results(const std::string& call);

} // namespace middleware
