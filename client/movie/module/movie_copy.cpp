#include "movie/module/movie_copy.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "movie/module/av_objects.h"
#include "movie/module/muxed_movie.h"
#include <common/sound_encoder.h>

namespace client::movie {
namespace {

constexpr int input_buffer_bytes = 256 << 10;

/** Adapter for libavformat to read a descriptor, from the start of the file. */
class FileInput {
public:
    explicit FileInput(int fd) : fd_(fd)
    {
        struct stat file = {};
        if (fstat(fd, &file) != 0)
            throw std::runtime_error(std::strerror(errno));
        size_ = file.st_size;
        auto* const buffer = static_cast<uint8_t*>(av_malloc(input_buffer_bytes));
        if (buffer)
            io_.reset(avio_alloc_context(buffer, input_buffer_bytes, 0, this, &FileInput::read,
                                         nullptr, &FileInput::seek));
        if (!io_)
            throw std::bad_alloc();
    }
    FileInput(const FileInput&) = delete;
    FileInput& operator=(const FileInput&) = delete;

    AVIOContext* io() const { return io_.get(); }
    /** The part that was read, 0 to 1. */
    double part_read() const
    {
        return size_ > 0 ? static_cast<double>(at_) / static_cast<double>(size_) : 1;
    }

private:
    static int read(void* self, uint8_t* bytes, int count)
    {
        auto& input = *static_cast<FileInput*>(self);
        const ssize_t got = pread(input.fd_, bytes, static_cast<size_t>(count), input.at_);
        if (got <= 0)
            return got == 0 ? AVERROR_EOF : AVERROR(errno);
        input.at_ += got;
        return static_cast<int>(got);
    }
    static int64_t seek(void* self, int64_t offset, int whence)
    {
        auto& input = *static_cast<FileInput*>(self);
        if (whence == AVSEEK_SIZE)
            return input.size_;
        if (whence != SEEK_SET || offset < 0)
            return AVERROR(EINVAL);
        return input.at_ = offset;
    }

    const int fd_;
    Io io_;
    int64_t size_ = 0;
    int64_t at_ = 0;
};

/** Writes to a descriptor. */
class FileOutput final : public MovieOutput {
public:
    explicit FileOutput(int fd) : fd_(fd) {}
    void write(uint64_t at, std::span<const uint8_t> bytes) override
    {
        while (!bytes.empty()) {
            const ssize_t written = pwrite(fd_, bytes.data(), bytes.size(), static_cast<off_t>(at));
            if (written < 0 && errno == EINTR)
                continue;
            if (written < 0)
                throw std::runtime_error(std::strerror(errno));
            at += static_cast<uint64_t>(written);
            bytes = bytes.subspan(static_cast<size_t>(written));
        }
    }

private:
    const int fd_;
};

/** Counts the bytes, and discards them. */
class NoOutput final : public MovieOutput {
public:
    void write(uint64_t, std::span<const uint8_t>) override {}
};

/** The size of a movie and of its index. */
struct Sizes {
    int64_t movie;
    int64_t index;
};

/** One pass over the input into one output. */
class Pass {
public:
    Pass(const CopyJob& job, MovieOutput& output)
        : job_(job), input_file_(job.from), output_file_(output, true)
    {
        open_input();
        open_output();
    }

    /** @param index_bytes room for the index in front, 0 = at the end */
    Sizes run(int64_t index_bytes, const std::function<bool(double)>& go_on)
    {
        write_header(index_bytes);
        Packet packet = make_packet();
        while (true) {
            const int result = av_read_frame(input_.get(), packet.get());
            if (result == AVERROR_EOF)
                break;
            checked(result);
            copy(*packet);
            av_packet_unref(packet.get());
            if (!go_on(input_file_.part_read()))
                throw std::runtime_error("it was interrupted");
        }
        return write_trailer();
    }

private:
    void open_input()
    {
        AVFormatContext* context = avformat_alloc_context();
        if (!context)
            throw std::bad_alloc();
        context->pb = input_file_.io();
        // frees the context if it fails
        checked(avformat_open_input(&context, "", nullptr, nullptr));
        input_.reset(context);
        // It decodes frames, which costs more CPU than the copy of a short movie.
        if (!job_.own)
            checked(avformat_find_stream_info(context, nullptr));
    }

    void open_output()
    {
        AVFormatContext* context = nullptr;
        checked(
            avformat_alloc_output_context2(&context, nullptr, muxer_name(job_.container), nullptr));
        output_.reset(context);
        context->pb = output_file_.io();
        context->flags |= AVFMT_FLAG_CUSTOM_IO;
        // otherwise a system call per packet
        context->flush_packets = 0;
        for (unsigned i = 0; i < input_->nb_streams; ++i)
            places_.push_back(add_stream(*input_->streams[i]));
        if (context->nb_streams == 0)
            throw std::runtime_error("it contains neither H.264 nor AAC");
        last_dts_.assign(context->nb_streams, INT64_MIN);
    }

    /** Index of the stream in the output, -1 = left out. */
    int add_stream(const AVStream& from)
    {
        if (from.codecpar->codec_id != AV_CODEC_ID_H264 &&
            from.codecpar->codec_id != AV_CODEC_ID_AAC) {
            refuse_to_lose(from);
            return -1;
        }
        if (from.codecpar->codec_id == AV_CODEC_ID_H264 && from.codecpar->width == 0)
            throw std::runtime_error("its pictures have no size: it has no key frame");
        AVStream* const to = avformat_new_stream(output_.get(), nullptr);
        if (!to)
            throw std::bad_alloc();
        checked(avcodec_parameters_copy(to->codecpar, from.codecpar));
        to->codecpar->codec_tag = 0;
        if (job_.own && from.codecpar->codec_id == AV_CODEC_ID_AAC)
            to->codecpar->frame_size = common::SoundEncoder::packet_samples;
        to->time_base = from.time_base;
        to->avg_frame_rate = from.avg_frame_rate;
        to->r_frame_rate = from.r_frame_rate;
        if (from.codecpar->codec_type == AVMEDIA_TYPE_VIDEO && starts_late())
            begin_us_ = av_rescale_q(from.start_time, from.time_base, AV_TIME_BASE_Q);
        return to->index;
    }

    /** A movie without its pictures or its sound is no copy; other streams are left out. */
    static void refuse_to_lose(const AVStream& from)
    {
        const AVMediaType kind = from.codecpar->codec_type;
        if (kind == AVMEDIA_TYPE_VIDEO || kind == AVMEDIA_TYPE_AUDIO)
            throw std::runtime_error(std::string("its ") + av_get_media_type_string(kind) + " is " +
                                     avcodec_get_name(from.codecpar->codec_id) +
                                     ", and only H.264 and AAC are copied");
    }

    /** Whether times begin at any value, as in a transport stream. */
    bool starts_late() const { return std::strcmp(input_->iformat->name, "mpegts") == 0; }

    void write_header(int64_t index_bytes)
    {
        AVDictionary* options = nullptr;
        if (job_.container == Container::mp4) {
            av_dict_set(&options, "movflags", "+write_colr", 0);
            av_dict_set_int(&options, "moov_size", index_bytes, 0);
        }
        const int result = avformat_write_header(output_.get(), &options);
        av_dict_free(&options);
        output_file_.rethrow();
        checked(result);
    }

    void copy(AVPacket& packet)
    {
        const auto from = static_cast<size_t>(packet.stream_index);
        if (from >= places_.size() || places_[from] < 0)
            return;
        const AVRational base = input_->streams[from]->time_base;
        const int64_t begin = av_rescale_q(begin_us_, AV_TIME_BASE_Q, base);
        if (packet.pts != AV_NOPTS_VALUE)
            packet.pts -= begin;
        if (packet.dts != AV_NOPTS_VALUE)
            packet.dts -= begin;
        // Sound before the first picture: MP4 has an edit list for it.
        if (packet.pts != AV_NOPTS_VALUE && packet.pts < 0 && job_.container != Container::mp4)
            return;
        packet.stream_index = places_[from];
        packet.pos = -1;
        av_packet_rescale_ts(&packet, base, output_->streams[packet.stream_index]->time_base);
        check_times(packet);
        const int result = av_interleaved_write_frame(output_.get(), &packet);
        output_file_.rethrow();
        checked(result);
    }

    void check_times(const AVPacket& packet)
    {
        int64_t& last = last_dts_[static_cast<size_t>(packet.stream_index)];
        if (last == INT64_MIN && packet.dts == AV_NOPTS_VALUE && packet.pts == AV_NOPTS_VALUE)
            throw std::runtime_error("it has no time stamps");
        if (packet.dts == AV_NOPTS_VALUE)
            return;
        if (packet.dts < last)
            throw std::runtime_error("its time stamps go back, as in several joined files");
        last = packet.dts;
    }

    Sizes write_trailer()
    {
        checked(av_interleaved_write_frame(output_.get(), nullptr));
        avio_flush(output_file_.io());
        const int64_t before = avio_size(output_file_.io());
        const int result = av_write_trailer(output_.get());
        avio_flush(output_file_.io());
        output_file_.rethrow();
        checked(result);
        const int64_t size = avio_size(output_file_.io());
        return {.movie = size, .index = size - before};
    }

    const CopyJob& job_;
    FileInput input_file_;
    InputContext input_;
    ByteOutput output_file_;
    OutputContext output_;
    std::vector<int> places_;
    /** of each stream of the output */
    std::vector<int64_t> last_dts_;
    int64_t begin_us_ = 0;
};

// Room for the empty box after the index, and for offsets of 8 bytes instead of 4 if the index in
// front moves the last chunks beyond 4 GiB.
int64_t with_reserve(int64_t index_bytes, int64_t movie_bytes)
{
    const bool near_limit = movie_bytes > UINT32_MAX - 2 * index_bytes;
    return index_bytes + 64 + (near_limit ? index_bytes / 2 : 0);
}

} // namespace

// The size of the index is known only after all packets, so the input is read twice and written
// once.
void copy_movie(const CopyJob& job)
{
    FileOutput file(job.to);
    if (job.container != Container::mp4) {
        Pass(job, file).run(0, job.go_on);
        return;
    }
    NoOutput none;
    const Sizes sizes = Pass(job, none).run(0, [&job](double part) { return job.go_on(part / 2); });
    Pass(job, file).run(with_reserve(sizes.index, sizes.movie),
                        [&job](double part) { return job.go_on(0.5 + part / 2); });
}

} // namespace client::movie
