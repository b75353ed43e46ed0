// Records the screen and its sound into a Matroska file: the library's encoded frames and its raw
// PCM, in step.
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

constexpr int samples_per_second = 48'000;
constexpr int64_t half_a_period_us = 1'000'000 / 30 / 2;

void require(bool succeeded, const char* failure)
{
    if (!succeeded)
        throw std::runtime_error(failure);
}

class Recorder {
public:
    ~Recorder()
    {
        video_capenc_close();
        audio_cap_close();
        if (movie_)
            avio_closep(&movie_->pb);
        avformat_free_context(movie_);
    }
    void run(const char* path, int64_t length_us)
    {
        avformat_alloc_output_context2(&movie_, nullptr, "matroska", path);
        require(movie_ && avio_open(&movie_->pb, path, AVIO_FLAG_WRITE) >= 0,
                "cannot open the file");
        require(video_capenc_open(&video_) == 0 && audio_cap_open() == 0, "cannot capture");
        begin_us_ = av_gettime_relative(); // the monotonic clock, as in the frames' times
        require(audio_cap_start() == 0 && video_capenc_start(0) == 0, "cannot start to capture");
        while (av_gettime_relative() < begin_us_ + length_us)
            if (!put_frame() && !put_sound())
                av_usleep(5000);
        require(has_frames() && av_write_trailer(movie_) >= 0, "cannot complete the file");
    }

private:
    bool has_frames() const { return movie_->nb_streams > 0; }
    /** @param size of the first frame, which begins with the parameter sets of the stream */
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
        sound.sample_rate = samples_per_second;
        av_channel_layout_default(&sound.ch_layout, 2);
        require(avformat_write_header(movie_, nullptr) >= 0, "cannot write the file");
    }
    void put(int stream, uint8_t* bytes, uint64_t size, int64_t time_us, int flags)
    {
        AVPacket packet = {};
        packet.data = bytes;
        packet.size = static_cast<int>(size);
        packet.stream_index = stream;
        packet.pts = packet.dts = time_us;
        packet.flags = flags;
        av_packet_rescale_ts(&packet, {1, 1'000'000}, movie_->streams[stream]->time_base);
        require(av_interleaved_write_frame(movie_, &packet) >= 0, "cannot write the file");
    }
    bool put_frame()
    {
        CapEnc_EsInfo info = {};
        if (video_capenc_getES(frame_.data(), frame_.size(), &info) != 0 || info.u64DataSize == 0)
            return false;
        if (!has_frames())
            begin(info.u64DataSize);
        // A key frame may have the time of the next frame, which then moves up.
        const int64_t time_us = static_cast<int64_t>(info.u64Pts) - begin_us_;
        last_us_ = std::max(time_us, last_us_ + half_a_period_us);
        put(0, frame_.data(), info.u64DataSize, last_us_, info.bKeyFrame ? AV_PKT_FLAG_KEY : 0);
        return true;
    }
    bool put_sound()
    {
        uint8_t bytes[4096];
        uint64_t size = 0;
        if (!has_frames() || audio_cap_getPCM(bytes, sizeof bytes, &size) != 0 || size == 0)
            return false;
        put(1, bytes, size, pairs_ * 1'000'000 / samples_per_second, AV_PKT_FLAG_KEY);
        pairs_ += static_cast<int64_t>(size) / 4;
        return true;
    }

    AVFormatContext* movie_ = nullptr;
    CapEnc_OpenParams video_ = {1280, 720, 30, 8'000'000, 0, 0, 0};
    std::vector<uint8_t> frame_ = std::vector<uint8_t>(video_capenc_getMaxEsSize());
    int64_t begin_us_ = 0, last_us_ = -half_a_period_us, pairs_ = 0;
};

int main(int argc, char** argv)
try {
    require(argc == 3, "usage: record_movie FILE.mkv SECONDS");
    Recorder().run(argv[1], std::atoll(argv[2]) * 1'000'000);
} catch (const std::exception& failure) {
    return std::fprintf(stderr, "record_movie: %s\n", failure.what()), 1;
}
