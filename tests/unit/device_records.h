/** For the assertions made of device_layout.txt; only 4-byte pointers are the device's. */
#pragma once

#include <cstddef>

#include <screenrecord/screenrecord.h>
#include <srglworker/SrGlWorker.h>
#include <zu3/acap.h>
#include <zu3/cap.h>
#include <zu3/caps.h>
#include <zu3/disp.h>
#include <zu3/os.h>
#include <zu3/sys.h>
#include <zu3/tsmux.h>
#include <zu3/venc.h>

#define ASSERT_RECORD(record, bytes)                                                               \
    static_assert(sizeof(void*) != 4 || sizeof(record) == (bytes), #record " has changed its size")
#define ASSERT_FIELD(record, field, offset, bytes)                                                 \
    static_assert(sizeof(void*) != 4 ||                                                            \
                      (offsetof(record, field) == (offset) && sizeof(record::field) == (bytes)),   \
                  #record "::" #field " has moved or changed its size")
