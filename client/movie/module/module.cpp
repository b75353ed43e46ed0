#include "movie/module/movie_copy.h"
#include "movie/module/muxed_movie.h"

namespace client::movie {
namespace {

class Module final : public MovieModule {
public:
    std::unique_ptr<MovieWriter> open(const MovieFormat& format, MovieOutput& output) const override
    {
        return std::make_unique<MuxedMovie>(format, output);
    }
    void copy(const CopyJob& job) const override { copy_movie(job); }
};

} // namespace
} // namespace client::movie

extern "C" __attribute__((visibility("default"))) const client::movie::MovieModule*
screenrecord_movie_module()
{
    static const client::movie::Module module;
    // silences the log of libavformat: failures are thrown
    av_log_set_level(AV_LOG_QUIET);
    return &module;
}
