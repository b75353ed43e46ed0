#include "capture/portal/pipewire_stream.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <spa/debug/types.h>
#include <spa/param/video/format-utils.h>

namespace zu3host {

namespace {

// Most changed parts of a buffer; more count as all.
constexpr size_t most_parts = 32;
// A compositor without a free buffer drops its picture, perhaps the last one before a still screen.
// So there are enough for the times when this process is not scheduled.
constexpr int usual_buffers = 8;
constexpr int most_buffers = 16;

constexpr char not_joined[] =
    "the compositor offers none of the pixel formats BGRx, BGRA, RGBx and RGBA in shared memory, or PipeWire has no session manager (wireplumber)";

// Pods are laid out in these.
using PodMemory = std::array<uint8_t, 2048>;

const spa_pod* offered_formats(PodMemory& memory)
{
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    const spa_rectangle usual{1280, 720}, least{1, 1}, most{INT16_MAX, INT16_MAX};
    const spa_fraction varying{0, 1}, no_rate{0, 1}, usual_rate{120, 1}, most_rate{1000, 1},
        least_rate{1, 1};
    spa_pod_frame frame{};
    spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    spa_pod_builder_add(
        &builder, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
        SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
        SPA_POD_CHOICE_ENUM_Id(5, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx,
                               SPA_VIDEO_FORMAT_BGRA, SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA),
        SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&usual, &least, &most),
        SPA_FORMAT_VIDEO_framerate, SPA_POD_CHOICE_RANGE_Fraction(&varying, &no_rate, &most_rate),
        SPA_FORMAT_VIDEO_maxFramerate,
        SPA_POD_CHOICE_RANGE_Fraction(&usual_rate, &least_rate, &most_rate), 0);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &frame));
}

const spa_pod* wanted_buffers(PodMemory& memory)
{
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    spa_pod_frame frame{};
    spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers);
    spa_pod_builder_add(&builder, SPA_PARAM_BUFFERS_buffers,
                        SPA_POD_CHOICE_RANGE_Int(usual_buffers, 2, most_buffers),
                        SPA_PARAM_BUFFERS_dataType,
                        SPA_POD_CHOICE_FLAGS_Int(1 << SPA_DATA_MemFd | 1 << SPA_DATA_MemPtr), 0);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &frame));
}

const spa_pod* wanted_metadata(PodMemory& memory, uint32_t type, uint32_t usual, uint32_t least,
                               uint32_t most)
{
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    spa_pod_frame frame{};
    spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta);
    spa_pod_builder_add(&builder, SPA_PARAM_META_type, SPA_POD_Id(type), SPA_PARAM_META_size,
                        SPA_POD_CHOICE_RANGE_Int(usual, least, most), 0);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &frame));
}

std::string format_name(uint32_t format)
{
    const char* const name = spa_debug_type_find_short_name(spa_type_video_format, format);
    return name ? name : std::to_string(format);
}

void load_library()
{
    // pw_init() counts its calls; the library stays initialized until the process ends.
    static const bool done = (pw_init(nullptr, nullptr), true);
    static_cast<void>(done);
}

PipewireStream* object(void* data)
{
    return static_cast<PipewireStream*>(data);
}

} // namespace

/** Holds the loop's lock. */
class PipewireStream::Locked {
public:
    explicit Locked(pw_thread_loop* loop) : loop_(loop) { pw_thread_loop_lock(loop_); }
    ~Locked() { pw_thread_loop_unlock(loop_); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    pw_thread_loop* const loop_;
};

const pw_stream_events PipewireStream::stream_events = [] {
    pw_stream_events events{};
    events.version = PW_VERSION_STREAM_EVENTS;
    events.state_changed = [](void* data, pw_stream_state, pw_stream_state state,
                              const char* error) { object(data)->on_state(state, error); };
    events.param_changed = [](void* data, uint32_t id, const spa_pod* param) {
        if (id == SPA_PARAM_Format)
            object(data)->on_format(param);
    };
    events.add_buffer = [](void* data, pw_buffer* buffer) { object(data)->on_add_buffer(buffer); };
    events.remove_buffer = [](void* data, pw_buffer* buffer) {
        object(data)->on_remove_buffer(buffer);
    };
    events.process = [](void* data) { object(data)->on_process(); };
    return events;
}();

const pw_core_events PipewireStream::core_events = [] {
    pw_core_events events{};
    events.version = PW_VERSION_CORE_EVENTS;
    events.error = [](void* data, uint32_t id, int, int result, const char* message) {
        object(data)->on_core_error(id, result, message);
    };
    return events;
}();

const pw_registry_events PipewireStream::registry_events = [] {
    pw_registry_events events{};
    events.version = PW_VERSION_REGISTRY_EVENTS;
    events.global = [](void* data, uint32_t id, uint32_t, const char*, uint32_t, const spa_dict*) {
        object(data)->node_there_ = object(data)->node_there_ || id == object(data)->node_;
    };
    events.global_remove = [](void* data, uint32_t id) { object(data)->on_gone(id); };
    return events;
}();

std::unique_ptr<PipewireStream> PipewireStream::open(common::Descriptor remote, uint32_t node,
                                                     std::chrono::milliseconds patience,
                                                     std::string& failure)
{
    std::unique_ptr<PipewireStream> stream(new PipewireStream);
    if (stream->start(std::move(remote), node, failure) &&
        stream->wait_for_first(patience, failure))
        return stream;
    return nullptr;
}

bool PipewireStream::start(common::Descriptor remote, uint32_t node, std::string& failure)
{
    load_library();
    failure = "PipeWire's library cannot start: ";
    loop_ = pw_thread_loop_new("zu3 portal", nullptr);
    context_ = loop_ ? pw_context_new(pw_thread_loop_get_loop(loop_), nullptr, 0) : nullptr;
    if (!context_ || pw_thread_loop_start(loop_) < 0) {
        failure += std::strerror(errno);
        return false;
    }
    const Locked lock(loop_);
    node_ = node;
    // It closes the descriptor, even on failure.
    core_ = pw_context_connect_fd(context_, remote.release(), nullptr, 0);
    if (core_) {
        pw_core_add_listener(core_, &core_hook_, &core_events, this);
        registry_ = pw_core_get_registry(core_, PW_VERSION_REGISTRY, 0);
    }
    if (registry_)
        pw_registry_add_listener(registry_, &registry_hook_, &registry_events, this);
    if (registry_ && connect()) {
        failure.clear();
        return true;
    }
    failure = std::string("PipeWire cannot be reached: ") + std::strerror(errno);
    return false;
}

bool PipewireStream::connect()
{
    pw_properties* const properties =
        pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture",
                          PW_KEY_MEDIA_ROLE, "Screen", PW_KEY_NODE_DONT_RECONNECT, "true", nullptr);
    stream_ = pw_stream_new(core_, "screenrecord", properties);
    if (!stream_)
        return false;
    pw_stream_add_listener(stream_, &stream_hook_, &stream_events, this);
    PodMemory memory{};
    const spa_pod* params[] = {offered_formats(memory)};
    const auto flags =
        static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_DONT_RECONNECT);
    return pw_stream_connect(stream_, PW_DIRECTION_INPUT, node_, flags, params, 1) >= 0;
}

PipewireStream::~PipewireStream()
{
    if (!loop_)
        return;
    pw_thread_loop_stop(loop_);
    if (stream_)
        pw_stream_destroy(stream_);
    if (registry_)
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry_));
    if (core_)
        pw_core_disconnect(core_);
    if (context_)
        pw_context_destroy(context_);
    pw_thread_loop_destroy(loop_);
}

bool PipewireStream::wait_for_first(std::chrono::milliseconds patience, std::string& failure)
{
    const Locked lock(loop_);
    // In slices: a process that was stopped looks for the picture before it checks the limit.
    constexpr std::chrono::milliseconds slice(50);
    for (auto left = patience / slice; left > 0 && !latest_.fresh && !ended_; --left) {
        timespec until{};
        pw_thread_loop_get_time(loop_, &until, std::chrono::nanoseconds(slice).count());
        pw_thread_loop_timed_wait_full(loop_, &until);
    }
    if (latest_.fresh)
        return true;
    if (ended_)
        failure = *ended_;
    else if (unusable_memory_)
        failure = "PipeWire delivers its pictures in memory that cannot be read";
    else if (had_format_)
        failure = "PipeWire delivers no picture of the screen";
    else
        failure =
            node_there_
                ? not_joined
                : "PipeWire does not answer: restart it with 'systemctl --user restart pipewire'";
    return false;
}

void PipewireStream::wait_for_last_before(ChangePace::Clock::time_point due)
{
    const Locked lock(loop_);
    awaited_ = due;
    while (!ended_ && !has_last_before(due)) {
        const std::chrono::nanoseconds left = due - ChangePace::Clock::now();
        if (left <= std::chrono::nanoseconds::zero())
            return;
        timespec until{};
        pw_thread_loop_get_time(loop_, &until, left.count());
        pw_thread_loop_timed_wait_full(loop_, &until);
    }
}

void PipewireStream::show(ScreenCanvas& canvas, bool pointer)
{
    const Locked lock(loop_);
    if (latest_.fresh && latest_.buffer && format_) {
        const auto memory = memories_.find(latest_.buffer);
        const bool taken =
            memory != memories_.end() &&
            canvas.take(*memory->second, latest_.layout, *format_,
                        latest_.all ? std::span<const PictureRectangle>() : latest_.damage);
        latest_.fresh = false;
        latest_.all = !taken;
        latest_.damage.clear();
    }
    canvas.point(pointer ? &cursor_ : nullptr);
}

std::optional<std::string> PipewireStream::ended() const
{
    const Locked lock(loop_);
    return ended_;
}

void PipewireStream::end(const std::string& reason)
{
    if (!ended_)
        ended_ = reason;
    pw_thread_loop_signal(loop_, false);
}

void PipewireStream::on_state(pw_stream_state state, const char* error)
{
    if (state == PW_STREAM_STATE_ERROR)
        end(unjoined_reason().value_or(std::string("PipeWire's stream failed: ") +
                                       (error ? error : "it gives no reason")));
    else if (state == PW_STREAM_STATE_UNCONNECTED)
        end(unjoined_reason().value_or("PipeWire ended the stream"));
}

/** Why both ends were not connected; the session manager ends such a stream without a reason. */
std::optional<std::string> PipewireStream::unjoined_reason() const
{
    if (had_format_)
        return std::nullopt;
    return node_there_ ? not_joined : "the shared screen's stream is not there any more";
}

void PipewireStream::on_core_error(uint32_t id, int result, const char* message)
{
    if (id == PW_ID_CORE)
        end(result == -EPIPE ? "PipeWire went away"
                             : std::string("PipeWire failed: ") + (message ? message : ""));
}

void PipewireStream::on_gone(uint32_t id)
{
    if (id != node_)
        return;
    node_there_ = false;
    end("the compositor ended the stream, or went away");
}

void PipewireStream::on_format(const spa_pod* format)
{
    forget_latest();
    format_.reset();
    if (!format)
        return;
    uint32_t type = 0, subtype = 0;
    spa_video_info_raw raw{};
    if (spa_format_parse(format, &type, &subtype) < 0 || type != SPA_MEDIA_TYPE_video ||
        subtype != SPA_MEDIA_SUBTYPE_raw || spa_format_video_raw_parse(format, &raw) < 0)
        return end("PipeWire's stream has no format that is known");
    const auto order = pixel_order(raw.format);
    const PictureSize size{raw.size.width, raw.size.height};
    if (!order)
        return end("the compositor's pixel format " + format_name(raw.format) +
                   " is not known: it can be BGRx, BGRA, RGBx or RGBA");
    if (!is_possible_screen(size))
        return end("the compositor's picture of " + std::to_string(size.width) + "x" +
                   std::to_string(size.height) + " pixels is too large");
    format_ = StreamFormat{*order, size};
    had_format_ = true;
    PodMemory memories[6];
    const auto region = static_cast<uint32_t>(sizeof(spa_meta_region));
    const uint32_t header = sizeof(spa_meta_header), transform = sizeof(spa_meta_videotransform);
    const spa_pod* params[] = {
        wanted_buffers(memories[0]),
        wanted_metadata(memories[1], SPA_META_Header, header, header, header),
        wanted_metadata(memories[2], SPA_META_VideoCrop, region, region, region),
        wanted_metadata(memories[3], SPA_META_VideoDamage, region * 16, region, region * 64),
        wanted_metadata(memories[4], SPA_META_Cursor, cursor_metadata_bytes(64, 64),
                        cursor_metadata_bytes(1, 1),
                        cursor_metadata_bytes(greatest_cursor, greatest_cursor)),
        wanted_metadata(memories[5], SPA_META_VideoTransform, transform, transform, transform),
    };
    pw_stream_update_params(stream_, params, std::size(params));
}

void PipewireStream::on_add_buffer(pw_buffer* buffer)
{
    if (buffer->buffer->n_datas < 1)
        return;
    const spa_data& given = buffer->buffer->datas[0];
    std::unique_ptr<StreamMemory> memory;
    if (given.type == SPA_DATA_MemPtr)
        memory = std::make_unique<StreamMemory>(given.data, given.maxsize);
    else if (given.type == SPA_DATA_MemFd)
        memory = std::make_unique<StreamMemory>(static_cast<int>(given.fd), given.mapoffset,
                                                given.maxsize);
    if (memory && memory->usable())
        memories_[buffer] = std::move(memory);
    else
        unusable_memory_ = true;
}

void PipewireStream::on_remove_buffer(pw_buffer* buffer)
{
    if (latest_.buffer == buffer)
        latest_ = {};
    memories_.erase(buffer);
}

void PipewireStream::forget_latest()
{
    if (latest_.buffer)
        pw_stream_queue_buffer(stream_, latest_.buffer);
    latest_ = {};
}

void PipewireStream::on_process()
{
    bool fresh = false;
    while (pw_buffer* const buffer = pw_stream_dequeue_buffer(stream_)) {
        take_cursor(*buffer->buffer, cursor_);
        if (keep(buffer))
            fresh = true;
        else
            pw_stream_queue_buffer(stream_, buffer);
    }
    if (!fresh)
        return;
    const auto now = ChangePace::Clock::now();
    changes_.note(now, now.time_since_epoch());
    // Otherwise a newer one may follow, or none is awaited.
    if (has_last_before(awaited_))
        pw_thread_loop_signal(loop_, false);
}

/** Keeps the buffer if it has a picture, and returns the previous one. */
bool PipewireStream::keep(pw_buffer* buffer)
{
    const auto memory = memories_.find(buffer);
    const auto layout = format_ && memory != memories_.end()
                            ? frame_layout(*buffer->buffer, *format_, memory->second->size())
                            : std::nullopt;
    if (!layout)
        return false;
    if (!append_damage(*buffer->buffer, *format_, latest_.damage) ||
        latest_.damage.size() > most_parts)
        latest_.all = true;
    if (latest_.all)
        latest_.damage.clear();
    if (latest_.buffer)
        pw_stream_queue_buffer(stream_, latest_.buffer);
    latest_.buffer = buffer;
    latest_.layout = *layout;
    latest_.fresh = true;
    return true;
}

} // namespace zu3host
