/**
 * Captures COUNT pictures of the screen into four buffers in turn.
 *
 *     still_captures [COUNT]     default 100
 *
 * Exit code 0 if every capture succeeded and, from the fourth to the last, no descriptor and at most
 * 256 KiB of memory were added.
 */
#include "programs/support.h"

int main(int argc, char** argv)
{
    constexpr int buffers = 4;
    const int count = argc > 1 ? atoi(argv[1]) : 100;
    Cap_OpenParams params = {0, 0, E_CAP_OUTPUT_FMT_BGRA, 0, buffers};
    if (video_cap_open(&params) != 0)
        return 1;
    long first_kib = 0, first_descriptors = 0;
    int failed = 0;
    for (int i = 0; i < count; i++) {
        failed += video_cap_captureScreen(i % buffers) != 0;
        if (i == buffers - 1) {
            first_kib = resident_kib();
            first_descriptors = descriptors();
        }
    }
    const long grown_kib = resident_kib() - first_kib, added = descriptors() - first_descriptors;
    video_cap_close();
    printf("%d captures, %d failed, %ld KiB and %ld descriptors more at the end\n", count, failed,
           grown_kib, added);
    return failed != 0 || added != 0 || grown_kib > 256;
}
