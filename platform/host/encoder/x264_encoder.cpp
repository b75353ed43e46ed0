#include "encoder/x264_encoder.h"

#include "log/host_log.h"
#include "os/thread_start.h"

namespace zu3host {

std::unique_ptr<X264Encoder> X264Encoder::open(const EncoderSettings& settings)
{
    std::unique_ptr<X264Encoder> encoder(new X264Encoder(settings));
    return encoder->reopen() ? std::move(encoder) : nullptr;
}

bool X264Encoder::reopen()
{
    x264_param_t parameters = x264_parameters_of(settings_, log_);
    const SignalsBlocked for_the_slice_threads;
    Handle encoder(x264_encoder_open(&parameters));
    if (!encoder) {
        HOST_LOGE("x264 refused to open an encoder of %ux%u at %u pictures per second", settings_.size.width,
                  settings_.size.height, settings_.frame_rate);
        return false;
    }
    encoder_ = std::move(encoder);
    return true;
}

std::optional<AccessUnit> X264Encoder::encode(uint8_t* picture, bool as_key)
{
    x264_picture_t in;
    x264_picture_init(&in);
    const int stride = static_cast<int>(settings_.layout.stride);
    in.img.i_csp = X264_CSP_NV12;
    in.img.i_plane = 2;
    in.img.plane[0] = picture;
    in.img.plane[1] = picture + settings_.layout.luma_bytes();
    in.img.i_stride[0] = in.img.i_stride[1] = stride;
    in.i_type = as_key ? X264_TYPE_IDR : X264_TYPE_AUTO;
    in.i_pts = next_pts_++;
    x264_picture_t out;
    x264_nal_t* nals = nullptr;
    int count = 0;
    const int size = x264_encoder_encode(encoder_.get(), &nals, &count, &in, &out);
    if (size <= 0)
        return std::nullopt;
    // The payloads of one call follow each other without a gap.
    return AccessUnit{nals[0].p_payload, static_cast<uint32_t>(size), out.i_type == X264_TYPE_IDR};
}

bool X264Encoder::set_rate(EncoderRate rate)
{
    const EncoderRate old = settings_.rate;
    settings_.rate = rate;
    bool done = false;
    if (old.as_needed != rate.as_needed) {
        done = reopen();
    } else {
        x264_param_t parameters;
        x264_encoder_parameters(encoder_.get(), &parameters);
        zu3host::set_rate(parameters, rate);
        done = x264_encoder_reconfig(encoder_.get(), &parameters) == 0;
    }
    if (!done)
        settings_.rate = old;
    return done;
}

} // namespace zu3host
