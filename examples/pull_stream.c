/*
 * Pulls the encoded stream from the library, frame by frame, and writes it to standard output.
 *
 *   pull_stream [SECONDS] | ffplay -          without SECONDS: until the reader exits
 */
#include <screenrecord/screenrecord.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static double now(void)
{
    struct timespec time;
    timespec_get(&time, TIME_UTC);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

/*
 * Writes all buffered frames. Few are buffered, so call this several times per frame interval.
 * Returns 0 if the reader has exited.
 */
static int hand_on(uint8_t* buffer, uint64_t size)
{
    CapEnc_EsInfo info;
    while (video_capenc_getES(buffer, size, &info) == 0 && info.u64DataSize > 0)
        if (fwrite(buffer, 1, info.u64DataSize, stdout) != info.u64DataSize || fflush(stdout) != 0)
            return 0;
    return 1;
}

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? atof(argv[1]) : 0;
    const struct timespec pause = {0, 5000000};
    CapEnc_OpenParams params = {
        .width = 1280, .height = 720, .frameRate = 30, .outputBitrate = 2000000, .profile = 2};
    const uint64_t size = video_capenc_getMaxEsSize();
    uint8_t* buffer = malloc(size);

    signal(SIGPIPE, SIG_IGN); /* fwrite then reports that the reader has exited */
    if (buffer == NULL || video_capenc_open(&params) != 0 || video_capenc_start(0) != 0) {
        fprintf(stderr, "cannot capture; the log says why\n");
        video_capenc_close();
        free(buffer);
        return 1;
    }
    fprintf(stderr, "streaming %ux%u\n", params.width, params.height); /* as rounded up */
    for (const double end = now() + seconds;
         hand_on(buffer, size) && (seconds <= 0 || now() < end);)
        nanosleep(&pause, NULL);
    video_capenc_stop();
    video_capenc_close();
    free(buffer);
    return 0;
}
