/**
 * Offers pictures to PipeWire like a compositor, valid ones and impossible ones.
 *
 * pipewire_screen [--format NAME] [--size WxH] [--resize WxH] [--crop] [--turned] [--unsealed]
 *                 [--lie KIND]
 *
 * --format NAME   BGRx (default), BGRA, RGBx, RGBA or GRAY8
 * --size WxH      default 320x256
 * --resize WxH    the size after SIGUSR1
 * --crop          only the right half is visible
 * --turned        the picture is rotated counterclockwise by 90 degrees
 * --unsealed      uses memory that it can shrink
 * --lie KIND      after ten valid pictures, the memory or its description is wrong: shrink,
 *                 stride, size, offset, cursor, damage
 *
 * The picture has four quarters: red and green above, blue and white below. Prints "node N" once
 * PipeWire lists the node. Ends with PipeWire.
 */
#include <array>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

struct Options {
    uint32_t format = SPA_VIDEO_FORMAT_BGRx;
    spa_rectangle size{320, 256};
    spa_rectangle later{320, 256};
    bool crop = false;
    bool turned = false;
    bool sealed = true;
    std::string lie;
};

constexpr uint32_t cursor_bytes = sizeof(spa_meta_cursor) + sizeof(spa_meta_bitmap) + 64 * 64 * 4;

class Screen {
public:
    explicit Screen(const Options& options) : options_(options), size_(options.size)
    {
        loop_ = pw_main_loop_new(nullptr);
        stream_ = pw_stream_new_simple(
            pw_main_loop_get_loop(loop_), "pipewire_screen",
            pw_properties_new(PW_KEY_MEDIA_CLASS, "Video/Source", nullptr), &events, this);
    }

    int run()
    {
        std::array<uint8_t, 1024> memory{};
        const spa_pod* params[] = {formats(memory)};
        const auto flags =
            static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_ALLOC_BUFFERS);
        if (!stream_ ||
            pw_stream_connect(stream_, PW_DIRECTION_OUTPUT, PW_ID_ANY, flags, params, 1) < 0)
            return 1;
        pw_loop* const loop = pw_main_loop_get_loop(loop_);
        spa_source* const timer = pw_loop_add_timer(
            loop, [](void* screen, uint64_t) { static_cast<Screen*>(screen)->show(); }, this);
        timespec period{0, 50'000'000};
        pw_loop_update_timer(loop, timer, &period, &period, false);
        pw_loop_add_signal(
            loop, SIGUSR1, [](void* screen, int) { static_cast<Screen*>(screen)->resize(); }, this);
        return pw_main_loop_run(loop_) < 0;
    }

private:
    const spa_pod* formats(std::array<uint8_t, 1024>& memory) const
    {
        spa_pod_builder builder{};
        spa_pod_builder_init(&builder, memory.data(), memory.size());
        const spa_fraction varying{0, 1}, usual{20, 1}, least{1, 1}, most{60, 1};
        return static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType,
            SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
            SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format, SPA_POD_Id(options_.format),
            SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size_), SPA_FORMAT_VIDEO_framerate,
            SPA_POD_Fraction(&varying), SPA_FORMAT_VIDEO_maxFramerate,
            SPA_POD_CHOICE_RANGE_Fraction(&usual, &least, &most)));
    }

    void resize()
    {
        size_ = options_.later;
        std::array<uint8_t, 1024> memory{};
        const spa_pod* params[] = {formats(memory)};
        pw_stream_update_params(stream_, params, 1);
    }

    uint32_t stride() const { return size_.width * 4; }
    uint32_t bytes() const { return stride() * size_.height; }

    void on_format()
    {
        const std::pair<uint32_t, uint32_t> metas[] = {
            {SPA_META_Header, sizeof(spa_meta_header)},
            {SPA_META_Cursor, cursor_bytes},
            {SPA_META_VideoCrop, sizeof(spa_meta_region)},
            {SPA_META_VideoDamage, 4 * sizeof(spa_meta_region)},
            {SPA_META_VideoTransform, sizeof(spa_meta_videotransform)}};
        std::array<uint8_t, 1024> memory{};
        spa_pod_builder builder{};
        spa_pod_builder_init(&builder, memory.data(), memory.size());
        std::vector<const spa_pod*> params{static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
            SPA_POD_Int(4), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size,
            SPA_POD_Int(static_cast<int>(bytes())), SPA_PARAM_BUFFERS_stride,
            SPA_POD_Int(static_cast<int>(stride())), SPA_PARAM_BUFFERS_dataType,
            SPA_POD_CHOICE_FLAGS_Int(1 << SPA_DATA_MemFd)))};
        for (const auto& [type, size] : metas)
            params.push_back(static_cast<const spa_pod*>(spa_pod_builder_add_object(
                &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
                SPA_POD_Id(type), SPA_PARAM_META_size, SPA_POD_Int(static_cast<int>(size)))));
        pw_stream_update_params(stream_, params.data(), static_cast<uint32_t>(params.size()));
    }

    void add_buffer(const pw_buffer& buffer) const
    {
        spa_data& data = buffer.buffer->datas[0];
        const int fd = memfd_create("pipewire_screen", MFD_CLOEXEC | MFD_ALLOW_SEALING);
        if (ftruncate(fd, static_cast<off_t>(bytes())) != 0)
            exit(1);
        if (options_.sealed)
            fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW);
        data.type = SPA_DATA_MemFd;
        data.flags = SPA_DATA_FLAG_READWRITE;
        data.fd = fd;
        data.mapoffset = 0;
        data.maxsize = bytes();
        data.data = mmap(nullptr, bytes(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }

    void draw(uint8_t* pixels) const
    {
        const bool red_first =
            options_.format == SPA_VIDEO_FORMAT_RGBx || options_.format == SPA_VIDEO_FORMAT_RGBA;
        constexpr uint8_t colours[4][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}};
        // turned counterclockwise, the upper right quarter comes to the upper left
        constexpr int turned[4] = {1, 3, 0, 2};
        for (uint32_t y = 0; y < size_.height; ++y)
            for (uint32_t x = 0; x < size_.width; ++x) {
                const int at = (y >= size_.height / 2) * 2 + (x >= size_.width / 2);
                const uint8_t* const colour = colours[options_.turned ? turned[at] : at];
                uint8_t* const pixel = pixels + stride() * y + 4 * x;
                for (int i = 0; i < 3; ++i)
                    pixel[i] = colour[red_first ? i : 2 - i];
                pixel[3] = 255;
            }
    }

    template <typename T> static T* meta(const pw_buffer& buffer, uint32_t type)
    {
        return static_cast<T*>(spa_buffer_find_meta_data(buffer.buffer, type, sizeof(T)));
    }

    void describe(const pw_buffer& buffer) const
    {
        if (auto* const crop = meta<spa_meta_region>(buffer, SPA_META_VideoCrop))
            crop->region = options_.crop ? spa_region{{static_cast<int32_t>(size_.width / 2), 0},
                                                      {size_.width / 2, size_.height}}
                                         : spa_region{{0, 0}, size_};
        if (auto* const turn = meta<spa_meta_videotransform>(buffer, SPA_META_VideoTransform))
            turn->transform =
                options_.turned ? SPA_META_TRANSFORMATION_90 : SPA_META_TRANSFORMATION_None;
        if (auto* const damage = meta<spa_meta_region>(buffer, SPA_META_VideoDamage))
            damage->region = {{0, 0}, size_};
        if (auto* const cursor = meta<spa_meta_cursor>(buffer, SPA_META_Cursor))
            cursor->id = 0;
    }

    void lie(const pw_buffer& buffer) const
    {
        spa_data& data = buffer.buffer->datas[0];
        if (options_.lie == "shrink" && ftruncate(static_cast<int>(data.fd), 0) != 0)
            exit(1);
        if (options_.lie == "stride")
            data.chunk->stride = INT_MIN;
        if (options_.lie == "size")
            data.chunk->size = 1;
        if (options_.lie == "offset")
            data.chunk->offset = data.maxsize - 1;
        auto* const damage = meta<spa_meta_region>(buffer, SPA_META_VideoDamage);
        if (options_.lie == "damage" && damage)
            for (int i = 0; i < 4; ++i)
                damage[i].region = {{INT_MAX, INT_MIN}, {UINT_MAX, UINT_MAX}};
        auto* const cursor = meta<spa_meta_cursor>(buffer, SPA_META_Cursor);
        if (options_.lie != "cursor" || !cursor)
            return;
        *cursor = {1, 0, {10, 10}, {INT_MIN, INT_MAX}, static_cast<uint32_t>(sizeof *cursor)};
        *reinterpret_cast<spa_meta_bitmap*>(cursor + 1) = {
            SPA_VIDEO_FORMAT_BGRA, {UINT_MAX, UINT_MAX}, INT_MAX, UINT_MAX - 3};
    }

    void show()
    {
        pw_buffer* const buffer = pw_stream_dequeue_buffer(stream_);
        if (!buffer)
            return;
        spa_data& data = buffer->buffer->datas[0];
        const bool lies = !options_.lie.empty() && ++shown_ > 10;
        if (!(lies && options_.lie == "shrink"))
            draw(static_cast<uint8_t*>(data.data));
        data.chunk->offset = 0;
        data.chunk->size = bytes();
        data.chunk->stride = static_cast<int32_t>(stride());
        data.chunk->flags = 0;
        describe(*buffer);
        if (lies)
            lie(*buffer);
        pw_stream_queue_buffer(stream_, buffer);
    }

    void on_state(pw_stream_state state)
    {
        if (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED)
            pw_main_loop_quit(loop_);
        if (state != PW_STREAM_STATE_PAUSED || told_)
            return;
        told_ = true;
        printf("node %u\n", pw_stream_get_node_id(stream_));
        fflush(stdout);
    }

    static const pw_stream_events events;

    const Options options_;
    spa_rectangle size_;
    pw_main_loop* loop_ = nullptr;
    pw_stream* stream_ = nullptr;
    int shown_ = 0;
    bool told_ = false;
};

const pw_stream_events Screen::events = [] {
    pw_stream_events made{};
    made.version = PW_VERSION_STREAM_EVENTS;
    made.state_changed = [](void* screen, pw_stream_state, pw_stream_state state, const char*) {
        static_cast<Screen*>(screen)->on_state(state);
    };
    made.param_changed = [](void* screen, uint32_t id, const spa_pod* param) {
        if (id == SPA_PARAM_Format && param)
            static_cast<Screen*>(screen)->on_format();
    };
    made.add_buffer = [](void* screen, pw_buffer* buffer) {
        static_cast<Screen*>(screen)->add_buffer(*buffer);
    };
    made.remove_buffer = [](void*, pw_buffer* buffer) {
        munmap(buffer->buffer->datas[0].data, buffer->buffer->datas[0].maxsize);
        close(static_cast<int>(buffer->buffer->datas[0].fd));
    };
    return made;
}();

bool parse(int argc, char** argv, Options& options)
{
    constexpr std::pair<std::string_view, uint32_t> formats[] = {{"BGRx", SPA_VIDEO_FORMAT_BGRx},
                                                                 {"BGRA", SPA_VIDEO_FORMAT_BGRA},
                                                                 {"RGBx", SPA_VIDEO_FORMAT_RGBx},
                                                                 {"RGBA", SPA_VIDEO_FORMAT_RGBA},
                                                                 {"GRAY8", SPA_VIDEO_FORMAT_GRAY8}};
    for (int i = 1; i < argc; ++i) {
        const std::string_view name = argv[i];
        const char* const value = i + 1 < argc ? argv[i + 1] : "";
        if (name == "--crop")
            options.crop = true;
        else if (name == "--turned")
            options.turned = true;
        else if (name == "--unsealed")
            options.sealed = false;
        else if (name == "--lie")
            options.lie = argv[++i];
        else if (name == "--size" &&
                 sscanf(value, "%ux%u", &options.size.width, &options.size.height) == 2)
            ++i;
        else if (name == "--resize" &&
                 sscanf(value, "%ux%u", &options.later.width, &options.later.height) == 2)
            ++i;
        else if (name == "--format") {
            for (const auto& [known, format] : formats)
                options.format = known == value ? format : options.format;
            ++i;
        } else
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parse(argc, argv, options)) {
        fprintf(
            stderr,
            "usage: pipewire_screen [--format NAME] [--size WxH] [--resize WxH] [--crop] [--turned] [--unsealed] [--lie KIND]\n");
        return 2;
    }
    // in each thread of PipeWire's library as well, so that the loop gets it
    sigset_t resize;
    sigemptyset(&resize);
    sigaddset(&resize, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &resize, nullptr);
    pw_init(nullptr, nullptr);
    return Screen(options).run();
}
