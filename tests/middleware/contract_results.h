/**
 * What the platform contract lets each call answer besides its plain success, for tests that try
 * all of it.
 */
#pragma once

#include <string>
#include <vector>

#include "zu3/types.h"

namespace middleware {

/**
 * The answers of `call` ("ZU_VENC_SetAttr:0x1" like "ZU_VENC_SetAttr") that differ from doing what
 * was asked, the plain failure first. A success is among them where the contract lets it come with
 * nothing: no region, no buffer, no bytes. Empty for calls that cannot fail.
 */
std::vector<s64> contract_results(const std::string& call);

} // namespace middleware
