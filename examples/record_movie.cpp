// Records the screen and its sound into a Matroska file: the library's encoded frames and its raw
// PCM, in sync.
//
//   record_movie FILE.mkv SECONDS

#include <screenrecord/screenrecord.h>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/time.h>
}

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <vector>

constexpr AVRational microseconds{1, 1'000'000}, samples{1, 48'000};
constexpr int64_t half_a_period_us = 1'000'000 / 30 / 2;

void require(bool succeeded, const char* failure)
{
    if (!succeeded)
        throw std::runtime_error(failure);
}

class Recorder {
public:
    explicit Recorder(const char* path) : path_(path)
    {
        require(avformat_alloc_output_context2(&movie_, nullptr, "matroska", path) >= 0,
                "no muxer");
        require(video_capenc_open(&video_) == 0 && audio_cap_open() == 0,
                "cannot open the capture");
        sound_begin_us_ = av_gettime_relative(); // the monotonic clock, as in the frames' times
        require(audio_cap_start() == 0 && video_capenc_start(0) == 0, "cannot start the capture");
    }
    ~Recorder()
    {
        video_capenc_close();
        audio_cap_close();
        avio_closep(&movie_->pb);
        avformat_free_context(movie_);
    }
    void run(int64_t length_us)
    {
        for (const int64_t end = sound_begin_us_ + length_us; av_gettime_relative() < end;)
            if (!put_frame() && !put_sound())
                av_usleep(5000);
        require(movie_->pb && av_write_trailer(movie_) >= 0, "cannot complete the file");
    }

private:
    /** The first frame begins with the parameter sets of the stream. */
    void begin(size_t size)
    {
        AVCodecParameters& pictures = *avformat_new_stream(movie_, nullptr)->codecpar;
        pictures.codec_type = AVMEDIA_TYPE_VIDEO;
        pictures.codec_id = AV_CODEC_ID_H264;
        pictures.width = static_cast<int>(video_.width);
        pictures.height = static_cast<int>(video_.height);
        pictures.extradata_size = static_cast<int>(size);
        pictures.extradata = static_cast<uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
        std::copy_n(frame_.begin(), size, pictures.extradata);
        AVCodecParameters& sound = *avformat_new_stream(movie_, nullptr)->codecpar;
        sound.codec_type = AVMEDIA_TYPE_AUDIO;
        sound.codec_id = AV_CODEC_ID_PCM_S16LE;
        sound.sample_rate = samples.den;
        av_channel_layout_default(&sound.ch_layout, 2);
        require(avio_open(&movie_->pb, path_, AVIO_FLAG_WRITE) >= 0, "cannot create the file");
        require(avformat_write_header(movie_, nullptr) >= 0, "cannot write the file");
    }
    void put(int stream, uint8_t* bytes, uint64_t size, int64_t time, AVRational unit, bool key)
    {
        AVPacket packet = {};
        packet.data = bytes;
        packet.size = static_cast<int>(size);
        packet.stream_index = stream;
        packet.pts = packet.dts = av_rescale_q(time, unit, movie_->streams[stream]->time_base);
        packet.flags = key ? AV_PKT_FLAG_KEY : 0;
        require(av_interleaved_write_frame(movie_, &packet) >= 0, "cannot write the file");
    }
    bool put_frame()
    {
        CapEnc_EsInfo info = {};
        if (video_capenc_getES(frame_.data(), frame_.size(), &info) != 0 || info.u64DataSize == 0)
            return false;
        const auto time_us = static_cast<int64_t>(info.u64Pts);
        if (!movie_->pb) {
            begin(info.u64DataSize);
            begin_us_ = time_us;
        }
        // A key frame may have the time of the next frame, which then moves up.
        last_us_ = std::max(time_us - begin_us_, last_us_ + half_a_period_us);
        put(0, frame_.data(), info.u64DataSize, last_us_, microseconds, info.bKeyFrame != 0);
        return true;
    }
    /** Leaves out sound from before the first frame. */
    bool put_sound()
    {
        uint8_t bytes[4096];
        uint64_t size = 0;
        if (!movie_->pb || audio_cap_getPCM(bytes, sizeof bytes, &size) != 0 || size == 0)
            return false;
        const auto early = av_rescale_q(begin_us_ - sound_begin_us_, microseconds, samples);
        if (read_ >= early)
            put(1, bytes, size, read_ - early, samples, true);
        read_ += static_cast<int64_t>(size) / 4;
        return true;
    }

    const char* const path_;
    AVFormatContext* movie_ = nullptr;
    CapEnc_OpenParams video_ = {1280, 720, 30, 8'000'000, 0, 0, 0};
    std::vector<uint8_t> frame_ = std::vector<uint8_t>(video_capenc_getMaxEsSize());
    int64_t begin_us_ = 0, last_us_ = -half_a_period_us, sound_begin_us_ = 0;
    int64_t read_ = 0; // pairs of samples
};

int main(int argc, char** argv)
try {
    require(argc == 3, "usage: record_movie FILE.mkv SECONDS");
    Recorder(argv[1]).run(std::atoll(argv[2]) * 1'000'000);
} catch (const std::exception& failure) {
    return std::fprintf(stderr, "record_movie: %s\n", failure.what()), 1;
}
