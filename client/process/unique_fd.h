#pragma once

#include <common/descriptor.h>

namespace client {

using UniqueFd = common::Descriptor;

} // namespace client
