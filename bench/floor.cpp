/**
 * The minimum cost of recording a screen: a loop of shared-memory image, one colour conversion and
 * x264 on one thread, without the other work of a recorder.
 *
 *   bench_floor FPS SECONDS FILE.h264 [KEY=VALUE...]
 *
 * Records the screen of DISPLAY at its size, on the schedule start + n / FPS. The x264 options are
 * applied after preset veryfast and tune zerolatency.
 */
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <vector>

#include <libyuv/convert_from_argb.h>
#include <x264.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>

namespace {

[[noreturn]] void fail(const char* what)
{
    fprintf(stderr, "bench_floor: %s\n", what);
    exit(1);
}

/** The root window's pixels in one segment that the server writes into. */
class Screen {
public:
    Screen() : xcb_(xcb_connect(nullptr, nullptr))
    {
        if (xcb_connection_has_error(xcb_))
            fail("the display of DISPLAY cannot be reached");
        const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(xcb_)).data;
        root_ = screen->root;
        width = screen->width_in_pixels;
        height = screen->height_in_pixels;
        const int id = shmget(IPC_PRIVATE, size_t{width} * height * 4, IPC_CREAT | 0600);
        void* const memory = id < 0 ? nullptr : shmat(id, nullptr, 0);
        if (!memory || memory == reinterpret_cast<void*>(-1))
            fail("no shared memory");
        pixels = static_cast<const uint8_t*>(memory);
        segment_ = xcb_generate_id(xcb_);
        const auto attached = xcb_shm_attach_checked(xcb_, segment_, static_cast<uint32_t>(id), 0);
        if (xcb_request_check(xcb_, attached))
            fail("the server shares no memory");
        shmctl(id, IPC_RMID, nullptr);
    }

    void fetch()
    {
        const auto asked = xcb_shm_get_image(xcb_, root_, 0, 0, width, height, ~0u,
                                             XCB_IMAGE_FORMAT_Z_PIXMAP, segment_, 0);
        const std::unique_ptr<xcb_shm_get_image_reply_t, decltype(&free)> reply(
            xcb_shm_get_image_reply(xcb_, asked, nullptr), free);
        if (!reply)
            fail("the display is gone");
    }

    uint16_t width = 0;
    uint16_t height = 0;
    const uint8_t* pixels = nullptr;

private:
    xcb_connection_t* xcb_;
    xcb_window_t root_ = 0;
    xcb_shm_seg_t segment_ = 0;
};

x264_t* open_encoder(const Screen& screen, int fps, char** options)
{
    x264_param_t parameters;
    x264_param_default_preset(&parameters, "veryfast", "zerolatency");
    parameters.i_log_level = X264_LOG_WARNING;
    parameters.i_csp = X264_CSP_NV12;
    parameters.i_width = screen.width;
    parameters.i_height = screen.height;
    parameters.i_fps_num = static_cast<uint32_t>(fps);
    parameters.i_fps_den = 1;
    parameters.b_vfr_input = 0;
    for (; *options; ++options) {
        char* const value = strchr(*options, '=');
        if (!value)
            fail("an option is KEY=VALUE");
        *value = '\0';
        if (x264_param_parse(&parameters, *options, value + 1) != 0)
            fail("x264 does not know an option");
    }
    x264_param_apply_profile(&parameters, "high");
    x264_t* const encoder = x264_encoder_open(&parameters);
    if (!encoder)
        fail("x264 refuses");
    return encoder;
}

void wait_until(const timespec& start, int64_t after_ns)
{
    timespec due = start;
    due.tv_sec += (due.tv_nsec + after_ns) / 1'000'000'000;
    due.tv_nsec = (due.tv_nsec + after_ns) % 1'000'000'000;
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4 || atoi(argv[1]) <= 0 || atoi(argv[2]) <= 0)
        fail("usage: bench_floor FPS SECONDS FILE.h264 [KEY=VALUE...]");
    const int fps = atoi(argv[1]);
    Screen screen;
    x264_t* const encoder = open_encoder(screen, fps, argv + 4);
    FILE* const file = fopen(argv[3], "wb");
    if (!file)
        fail("the file cannot be written");
    // an access unit is out when it is written: it may go into a pipe
    setvbuf(file, nullptr, _IONBF, 0);
    const size_t luma = size_t{screen.width} * screen.height;
    std::vector<uint8_t> picture(luma + luma / 2);
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (int number = 0; number < fps * atoi(argv[2]); ++number) {
        wait_until(start, number * int64_t{1'000'000'000} / fps);
        screen.fetch();
        libyuv::ARGBToNV12(screen.pixels, screen.width * 4, picture.data(), screen.width,
                           picture.data() + luma, screen.width, screen.width, screen.height);
        x264_picture_t in;
        x264_picture_init(&in);
        in.img = {X264_CSP_NV12,
                  2,
                  {screen.width, screen.width},
                  {picture.data(), picture.data() + luma}};
        in.i_pts = number;
        x264_picture_t out;
        x264_nal_t* nals = nullptr;
        int count = 0;
        const int bytes = x264_encoder_encode(encoder, &nals, &count, &in, &out);
        if (bytes <= 0 || fwrite(nals[0].p_payload, static_cast<size_t>(bytes), 1, file) != 1)
            fail("a picture is lost");
    }
    x264_encoder_close(encoder);
    return fclose(file) == 0 ? 0 : 1;
}
