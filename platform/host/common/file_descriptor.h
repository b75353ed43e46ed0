#pragma once

#include "common/descriptor.h"

namespace zu3host {

using FileDescriptor = common::Descriptor;

} // namespace zu3host
