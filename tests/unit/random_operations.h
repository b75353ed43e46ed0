#pragma once

#include <vector>

#include "state_model.h"

/**
 * An operation: the call, the model's answer to it, and when it may be made. Where a step would open a device
 * over one that is open, the interface asks the client for a close first; such calls are not made. The
 * middleware has one capture connection, so two slots do not capture at a time.
 */
struct Operation {
    const char* name;
    u32 flaws; /**< kinds of bad arguments */
    bool (*may)(const StateModel&, const Choice&);
    bool (StateModel::*answer)(const Choice&);
    bool (*call)(Choice&);
};

/** All exported functions. */
extern const std::vector<Operation> OPERATIONS;
