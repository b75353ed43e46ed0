// Records the screen and its sound into a Matroska file: the library's encoded frames and its raw
// PCM, in sync.
//
//   record_movie FILE.mkv SECONDS

#include <screenrecord/screenrecord.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr AVRational microseconds{1, 1'000'000}, samples{1, 48'000};
constexpr int64_t half_a_period_us = 1'000'000 / 30 / 2;

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

class Recorder {
public:
    explicit Recorder(const char* path) : path_(path)
    {
        require(avformat_alloc_output_context2(&movie_, nullptr, "matroska", path) >= 0, "begin");
        require(video_capenc_open(&video_) == 0 && audio_cap_open() == 0, "open the capture");
        sound_begin_us_ = now_us();
        require(audio_cap_start() == 0 && video_capenc_start(0) == 0, "start the capture");
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
        for (const int64_t end = now_us() + length_us; now_us() < end;) {
            while (put_frame() || put_sound())
                ;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        require(begun_, "find a picture");
        require(av_write_trailer(movie_) >= 0, "write the file");
    }

private:
    /** The first frame has the parameter sets of the stream. */
    void begin(uint64_t size, int64_t time_us)
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
        require(avio_open(&movie_->pb, path_, AVIO_FLAG_WRITE) >= 0, "create the file");
        require(avformat_write_header(movie_, nullptr) >= 0, "write the file");
        begin_us_ = time_us;
        begun_ = true;
    }

    void put(int stream, uint8_t* bytes, uint64_t size, int64_t time, AVRational unit, bool key)
    {
        AVPacket packet = {};
        packet.data = bytes;
        packet.size = static_cast<int>(size);
        packet.stream_index = stream;
        packet.pts = packet.dts = av_rescale_q(time, unit, movie_->streams[stream]->time_base);
        packet.flags = key ? AV_PKT_FLAG_KEY : 0;
        require(av_interleaved_write_frame(movie_, &packet) >= 0, "write the file");
    }

    bool put_frame()
    {
        CapEnc_EsInfo info = {};
        if (video_capenc_getES(frame_.data(), frame_.size(), &info) != 0 || info.u64DataSize == 0)
            return false;
        const auto time_us = static_cast<int64_t>(info.u64Pts);
        if (!begun_)
            begin(info.u64DataSize, time_us);
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
        if (!begun_ || audio_cap_getPCM(bytes, sizeof bytes, &size) != 0 || size == 0)
            return false;
        const int64_t time =
            read_ - av_rescale_q(begin_us_ - sound_begin_us_, microseconds, samples);
        read_ += static_cast<int64_t>(size) / 4;
        if (time >= 0)
            put(1, bytes, size, time, samples, true);
        return true;
    }

    const char* const path_;
    AVFormatContext* movie_ = nullptr;
    CapEnc_OpenParams video_ = {1280, 720, 30, 8'000'000, 0, 0, 0};
    std::vector<uint8_t> frame_ = std::vector<uint8_t>(video_capenc_getMaxEsSize());
    bool begun_ = false;
    int64_t begin_us_ = 0, last_us_ = -half_a_period_us, sound_begin_us_ = 0;
    /** pairs of samples */
    int64_t read_ = 0;
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
