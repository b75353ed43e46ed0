#ifndef SCREENRECORD_MODULES_MULTIPLEXER_WRITER_H
#define SCREENRECORD_MODULES_MULTIPLEXER_WRITER_H

#include <zu3/types.h>

enum { SCREENRECORD_WRITER_STACK_SIZE = 0x20800 };

/**
 * The multiplexer's worker: copies the stream out, writes it to the file, and closes its slot at
 * the time limit.
 * @param pArg the argument block
 */
void _SCREENRECORD_TsmuxTaskHandler(void* pArg);

#endif
