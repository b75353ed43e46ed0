/*
 * Captures the screen repeatedly into two alternating buffers, and prints the number of pixels that
 * changed. Reads the pictures in the library's buffers, which are mapped once; nothing is copied.
 *
 *   screenshot_loop COUNT MILLISECONDS [LAST.ppm]
 */
#define _GNU_SOURCE
#include <screenrecord/screenrecord.h>

#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>

enum { BUFFERS = 2 };

static int map_buffers(const Cap_Buffer* buffers, const uint8_t* pictures[BUFFERS])
{
    for (int i = 0; i < BUFFERS; i++) {
        void* mapped = mmap(NULL, buffers[i].size[0], PROT_READ, MAP_SHARED, buffers[i].fd[0],
                            buffers[i].offset[0]);
        if (mapped == MAP_FAILED)
            return 0;
        pictures[i] = mapped;
    }
    return 1;
}

static unsigned long changed_pixels(const Cap_Buffer* shape, const uint8_t* before,
                                    const uint8_t* now)
{
    unsigned long changed = 0;
    for (uint32_t y = 0; y < shape->height; y++) {
        const uint32_t* a = (const uint32_t*)(before + (size_t)y * shape->pitch);
        const uint32_t* b = (const uint32_t*)(now + (size_t)y * shape->pitch);
        for (uint32_t x = 0; x < shape->width; x++)
            changed += ((a[x] ^ b[x]) & 0xffffff) != 0; /* the fourth byte is unused */
    }
    return changed;
}

static int write_ppm(const char* name, const Cap_Buffer* shape, const uint8_t* picture)
{
    FILE* file = fopen(name, "wbx");
    if (file == NULL)
        return 0;
    fprintf(file, "P6\n%u %u\n255\n", shape->width, shape->height);
    for (uint32_t y = 0; y < shape->height; y++)
        for (uint32_t x = 0; x < shape->width; x++) {
            const uint8_t* pixel = picture + (size_t)y * shape->pitch + 4 * (size_t)x;
            const uint8_t rgb[3] = {pixel[2], pixel[1], pixel[0]};
            fwrite(rgb, 1, sizeof rgb, file);
        }
    return fclose(file) == 0;
}

static int run(int count, const struct timespec* pause, const char* last)
{
    Cap_Buffer buffers[BUFFERS];
    const uint8_t* pictures[BUFFERS];
    if (video_cap_getCaptureBuffers(buffers, BUFFERS) != 0 || !map_buffers(buffers, pictures))
        return 0;
    for (int i = 0; i < count; i++) {
        if (video_cap_captureScreen(i % BUFFERS) != 0)
            return 0;
        if (i > 0)
            printf("%d: %lu pixels changed\n", i,
                   changed_pixels(buffers, pictures[(i + 1) % BUFFERS], pictures[i % BUFFERS]));
        fflush(stdout);
        nanosleep(pause, NULL);
    }
    return last == NULL || write_ppm(last, buffers, pictures[(count - 1) % BUFFERS]);
}

int main(int argc, char** argv)
{
    Cap_OpenParams params = {
        .width = 640, .height = 480, .colorfmt = E_CAP_OUTPUT_FMT_BGRA, .buffer_number = BUFFERS};
    const int count = argc > 2 ? atoi(argv[1]) : 0, milliseconds = argc > 2 ? atoi(argv[2]) : 0;
    const struct timespec pause = {milliseconds / 1000, milliseconds % 1000 * 1000000L};
    if (count < 1 || milliseconds < 0) {
        fprintf(stderr, "usage: screenshot_loop COUNT MILLISECONDS [LAST.ppm]\n");
        return 2;
    }
    const int complete =
        video_cap_open(&params) == 0 && run(count, &pause, argc > 3 ? argv[3] : NULL);
    if (!complete)
        fprintf(stderr, "cannot take the pictures; the log says why\n");
    video_cap_close(); /* the mappings stay valid until the process ends */
    return complete ? 0 : 1;
}
