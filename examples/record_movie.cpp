// Records the screen and its sound into a Matroska file: the library's encoded frames beside its
// raw PCM, in step.
//
//   record_movie FILE.mkv SECONDS

#include <screenrecord/screenrecord.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

constexpr int64_t frame_period_us = 1'000'000 / 30;
constexpr AVRational microseconds{1, 1'000'000}, samples{1, 48'000};
constexpr int64_t pair_bytes = 4; // 16 bits for each of two channels

void require(bool succeeded, const char* action)
{
    if (!succeeded)
        throw std::runtime_error(std::string("cannot ") + action);
}

/** The monotonic clock, as in the time stamps of the frames. */
int64_t now_us()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

struct CloseMovie {
    void operator()(AVFormatContext* movie) const
    {
        avio_closep(&movie->pb);
        avformat_free_context(movie);
    }
};
using Movie = std::unique_ptr<AVFormatContext, CloseMovie>;

/** Opens the file; stream 0 is H.264, stream 1 is PCM. The first frame has the parameter sets. */
Movie open_movie(const char* path, const CapEnc_OpenParams& video, const std::vector<uint8_t>& first)
{
    AVFormatContext* context = nullptr;
    require(avformat_alloc_output_context2(&context, nullptr, "matroska", path) >= 0, "begin");
    Movie movie(context);
    AVCodecParameters& pictures = *avformat_new_stream(context, nullptr)->codecpar;
    pictures.codec_type = AVMEDIA_TYPE_VIDEO;
    pictures.codec_id = AV_CODEC_ID_H264;
    pictures.width = static_cast<int>(video.width);
    pictures.height = static_cast<int>(video.height);
    pictures.extradata_size = static_cast<int>(first.size());
    pictures.extradata =
        static_cast<uint8_t*>(av_mallocz(first.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    std::copy(first.begin(), first.end(), pictures.extradata);
    AVCodecParameters& sound = *avformat_new_stream(context, nullptr)->codecpar;
    sound.codec_type = AVMEDIA_TYPE_AUDIO;
    sound.codec_id = AV_CODEC_ID_PCM_S16LE;
    sound.sample_rate = samples.den;
    sound.bits_per_coded_sample = 16;
    av_channel_layout_default(&sound.ch_layout, 2);
    require(avio_open(&context->pb, path, AVIO_FLAG_WRITE) >= 0, "create the file");
    require(avformat_write_header(context, nullptr) >= 0, "write the file");
    return movie;
}

void put(const Movie& movie, int stream, uint8_t* bytes, int64_t size, int64_t time, AVRational unit,
         bool key)
{
    AVPacket packet = {};
    packet.data = bytes;
    packet.size = static_cast<int>(size);
    packet.stream_index = stream;
    packet.pts = packet.dts = av_rescale_q(time, unit, movie->streams[stream]->time_base);
    packet.flags = key ? AV_PKT_FLAG_KEY : 0;
    require(av_interleaved_write_frame(movie.get(), &packet) >= 0, "write the file");
}

class Recorder {
public:
    explicit Recorder(const char* path) : path_(path), frame_(video_capenc_getMaxEsSize()) {}
    ~Recorder()
    {
        video_capenc_close();
        audio_cap_close();
    }

    void run(int64_t length_us)
    {
        require(video_capenc_open(&video_) == 0 && audio_cap_open() == 0, "open the capture");
        sound_begin_us_ = now_us();
        require(audio_cap_start() == 0 && video_capenc_start(0) == 0, "start the capture");
        for (const int64_t end = now_us() + length_us; now_us() < end;) {
            while (put_frame() || put_sound())
                ;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        require(movie_ != nullptr, "find a picture");
        require(av_write_trailer(movie_.get()) >= 0, "write the file");
    }

private:
    bool put_frame()
    {
        CapEnc_EsInfo info = {};
        if (video_capenc_getES(frame_.data(), frame_.size(), &info) != 0 || info.u64DataSize == 0)
            return false;
        const auto time = static_cast<int64_t>(info.u64Pts);
        if (!movie_) {
            movie_ = open_movie(path_, video_, {frame_.data(), frame_.data() + info.u64DataSize});
            begin_us_ = time;
            last_us_ = -frame_period_us;
        }
        // The time of a key frame may be that of the next frame, which then moves up.
        last_us_ = std::max(time - begin_us_, last_us_ + frame_period_us / 2);
        put(movie_, 0, frame_.data(), static_cast<int64_t>(info.u64DataSize), last_us_,
            microseconds, info.bKeyFrame != 0);
        return true;
    }

    /** Sound from before the first frame is left out. */
    bool put_sound()
    {
        uint8_t bytes[4096];
        uint64_t size = 0;
        if (!movie_ || audio_cap_getPCM(bytes, sizeof bytes, &size) != 0 || size == 0)
            return false;
        const int64_t count = static_cast<int64_t>(size) / pair_bytes;
        const int64_t time =
            sound_ - av_rescale_q(begin_us_ - sound_begin_us_, microseconds, samples);
        const int64_t early = std::min(std::max<int64_t>(-time, 0), count);
        sound_ += count;
        if (early < count)
            put(movie_, 1, bytes + early * pair_bytes, (count - early) * pair_bytes, time + early,
                samples, true);
        return true;
    }

    const char* const path_;
    CapEnc_OpenParams video_ = {1280, 720, 30, 8'000'000, 0, 0, 0};
    std::vector<uint8_t> frame_;
    Movie movie_;
    int64_t sound_begin_us_ = 0, begin_us_ = 0, last_us_ = 0;
    /** pairs of samples that were read */
    int64_t sound_ = 0;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return std::fprintf(stderr, "usage: record_movie FILE.mkv SECONDS\n"), 2;
    try {
        Recorder(argv[1]).run(std::atoll(argv[2]) * 1'000'000);
    } catch (const std::exception& failure) {
        return std::fprintf(stderr, "%s\n", failure.what()), 1;
    }
}
